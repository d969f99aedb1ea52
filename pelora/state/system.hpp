// The two states the client keeps in its Store: System (configuration, settings in force, whether
// the client is running) and UserInfo (who the user is). Both are built at start-up from the
// configuration and what Storage kept; afterwards only their actions change them.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "pelora/core/export.h"
#include "pelora/core/json.hpp"
#include "pelora/state/configuration.hpp"
#include "pelora/state/settings.hpp"
#include "pelora/state/store.hpp"

namespace pelora {

class Storage;

struct PELORA_API System : IState {
  std::shared_ptr<Configuration> configuration;
  std::optional<Settings> settings;
  bool running = false;

  // Stored settings, else the configuration's defaultSettings, else settings made from the write
  // key and the production tracking host; not running.
  static System defaultState(const std::shared_ptr<Configuration>& configuration, Storage& storage);

  struct ToggleRunningAction {
    using StateType = System;
    bool running = false;
    System reduce(const System& state) const;
  };
  struct UpdateSettingsAction {
    using StateType = System;
    Settings settings;
    System reduce(const System& state) const;
  };
  // Records `key` with the value true in the settings' integrations object (when there is one),
  // which is how a destination enabled by hand passes its settings check.
  struct AddDestinationToSettingsAction {
    using StateType = System;
    std::string key;
    System reduce(const System& state) const;
  };
};

struct PELORA_API UserInfo : IState {
  std::string anonymousId;
  std::optional<std::string> userId;
  std::optional<JSON> traits;

  // The stored identity; a fresh upper-case UUID as anonymous id when none is stored.
  static UserInfo defaultState(Storage& storage);

  // The user becomes anonymous again: no userId, no traits, a new anonymous id.
  struct ResetAction {
    using StateType = UserInfo;
    UserInfo reduce(const UserInfo& state) const;
  };
  // The host says who the user is: the user id, and the traits when given (else they stay).
  struct IdentifyAction {
    using StateType = UserInfo;
    std::string userId;
    std::optional<JSON> traits;
    UserInfo reduce(const UserInfo& state) const;
  };

  friend bool operator==(const UserInfo& a, const UserInfo& b) {
    return a.anonymousId == b.anonymousId && a.userId == b.userId && a.traits == b.traits;
  }
};

PELORA_API void encode(Encoder& encoder, const UserInfo& userInfo);
PELORA_API void decode(const JSON& json, UserInfo& userInfo);

}  // namespace pelora
