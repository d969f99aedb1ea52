#include "pelora/state/settings.hpp"
#include "pelora/core/fatal_error.hpp"

#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/console.hpp"

namespace pelora {

Settings::Settings(const std::string& writeKey, const std::string& apiHost) {
  try {
    integrations = JSON(Dictionary{
        {"Pelora.io", Dictionary{{"apiKey", writeKey}, {"apiHost", apiHost}}},
    });
  } catch (const std::exception& error) {
    fatalError(std::string("Settings: ") + error.what());
  }
}

Settings::Settings(const std::string& writeKey)
    : Settings(writeKey, std::string(productionTrackingHost)) {}

std::optional<Dictionary> Settings::integrationSettings(std::string_view key) const {
  if (!integrations) return std::nullopt;
  auto entry = (*integrations)[key];
  if (!entry) return std::nullopt;
  return entry->dictionaryValue();
}

bool Settings::hasIntegrationSettings(std::string_view key) const {
  return integrations && (*integrations)[key].has_value();
}

void encode(Encoder& encoder, const Settings& settings) {
  encoder.beginObject();
  encoder.fieldIfPresent("integrations", settings.integrations);
  encoder.fieldIfPresent("plan", settings.plan);
  encoder.fieldIfPresent("edgeFunction", settings.edgeFunction);
  encoder.fieldIfPresent("middlewareSettings", settings.middlewareSettings);
  encoder.endObject();
}

void decode(const JSON& json, Settings& settings) {
  // Any JSON value decodes as JSON, so a present key always gives a present field.
  auto member = [&](std::string_view key) -> std::optional<JSON> { return json[key]; };
  settings.integrations = member("integrations");
  settings.plan = member("plan");
  settings.edgeFunction = member("edgeFunction");
  settings.middlewareSettings = member("middlewareSettings");
}

}  // namespace pelora
