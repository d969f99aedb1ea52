#include "pelora/state/system.hpp"

#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/uuid.hpp"
#include "pelora/state/storage.hpp"

namespace pelora {

System System::defaultState(const std::shared_ptr<Configuration>& configuration, Storage& storage) {
  System system;
  system.configuration = configuration;
  if (auto stored = storage.read<Settings>(Storage::Key::settings)) {
    system.settings = std::move(stored);
  } else if (configuration->values.defaultSettings) {
    system.settings = configuration->values.defaultSettings;
  } else {
    system.settings = Settings(configuration->values.writeKey, std::string(productionTrackingHost));
  }
  system.running = false;
  return system;
}

System System::ToggleRunningAction::reduce(const System& state) const {
  System next = state;
  next.running = running;
  return next;
}

System System::UpdateSettingsAction::reduce(const System& state) const {
  System next = state;
  next.settings = settings;
  return next;
}

System System::AddDestinationToSettingsAction::reduce(const System& state) const {
  System next = state;
  if (!next.settings || !next.settings->integrations ||
      next.settings->integrations->kind() != JSON::Kind::object) {
    return next;
  }
  Dictionary integrations = *next.settings->integrations->dictionaryValue();
  integrations.insert_or_assign(key, true);
  try {
    next.settings->integrations = JSON(integrations);
  } catch (const JSONError&) {
    next.settings->integrations.reset();
  }
  return next;
}

UserInfo UserInfo::defaultState(Storage& storage) {
  UserInfo info;
  info.userId = storage.read<std::string>(Storage::Key::userId);
  info.traits = storage.read<JSON>(Storage::Key::traits);
  std::string fresh = platform::uuidString();
  info.anonymousId = storage.read<std::string>(Storage::Key::anonymousId).value_or(fresh);
  return info;
}

UserInfo UserInfo::ResetAction::reduce(const UserInfo&) const {
  UserInfo next;
  next.anonymousId = platform::uuidString();
  return next;
}

UserInfo UserInfo::IdentifyAction::reduce(const UserInfo& state) const {
  UserInfo next = state;
  next.userId = userId;
  if (traits) next.traits = traits;
  return next;
}

void encode(Encoder& encoder, const UserInfo& userInfo) {
  encoder.beginObject();
  encoder.field("anonymousId", userInfo.anonymousId);
  encoder.fieldIfPresent("userId", userInfo.userId);
  encoder.fieldIfPresent("traits", userInfo.traits);
  encoder.endObject();
}

void decode(const JSON& json, UserInfo& userInfo) {
  decodeRequired(json, "anonymousId", userInfo.anonymousId);
  decodeOptional(json, "userId", userInfo.userId);
  decodeOptional(json, "traits", userInfo.traits);
}

}  // namespace pelora
