// Settings: how destinations reach their servers. Each destination finds its own entry in
// `integrations` under its key (the upload destination's is "Pelora.io").
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pelora/core/export.h"
#include "pelora/core/json.hpp"

namespace pelora {

struct PELORA_API Settings {
  std::optional<JSON> integrations;
  std::optional<JSON> plan;
  std::optional<JSON> edgeFunction;
  std::optional<JSON> middlewareSettings;

  // Every field absent.
  Settings() = default;
  // integrations = {"Pelora.io": {"apiKey": writeKey, "apiHost": apiHost}}; the rest absent.
  Settings(const std::string& writeKey, const std::string& apiHost);
  // The same with the production tracking host.
  explicit Settings(const std::string& writeKey);

  // The entry under `key` as a dictionary, when integrations is an object holding an object there.
  std::optional<Dictionary> integrationSettings(std::string_view key) const;
  // The entry under `key` decoded into T; nothing on any failure.
  template <class T>
  std::optional<T> integrationSettings(std::string_view key) const {
    if (!integrations) return std::nullopt;
    auto entry = (*integrations)[key];
    if (!entry) return std::nullopt;
    try {
      return decodeValue<T>(*entry);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  // True when integrations is an object with an entry of any kind under `key`.
  bool hasIntegrationSettings(std::string_view key) const;

  friend bool operator==(const Settings&, const Settings&) = default;
};

// Writes only the fields that are present.
PELORA_API void encode(Encoder& encoder, const Settings& settings);
// Each key is read on its own; a missing or unreadable one leaves that field absent. Never throws
// for an object.
PELORA_API void decode(const JSON& json, Settings& settings);

}  // namespace pelora
