// PluginHost: what a plugin may ask of the client it was added to (its configuration, state,
// storage, settings, and a log). The client implements it; plugins never see more of the client,
// so the plugin protocol and the plugins below the client do not depend on it.
#pragma once

#include <memory>
#include <optional>

#include "pelora/core/export.h"
#include "pelora/platform/logging.hpp"
#include "pelora/state/settings.hpp"

namespace pelora {

class Configuration;
class Store;
class Storage;

class PELORA_API PluginHost : public LogSink {
 public:
  // The options the client was created with.
  virtual const std::shared_ptr<Configuration>& configuration() const noexcept = 0;
  // The client's states (System, UserInfo).
  virtual const std::shared_ptr<Store>& store() const noexcept = 0;
  // Identity, settings and event files on disk.
  virtual const std::shared_ptr<Storage>& storage() const noexcept = 0;
  // The settings in force (nothing before start-up).
  virtual std::optional<Settings> settings() const = 0;
  // log(message, kind, function, line): handed to a log plugin while debug logs are on.
  // Writes out what log targets hold back.
  virtual void logFlush() = 0;
  // A plugin of this client (or of one of its destinations) was added or removed: what the
  // client knows of its plugins (Plugin::readsEventValues) is to be asked again.
  virtual void pluginsChanged() noexcept {}
};

}  // namespace pelora
