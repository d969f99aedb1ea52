// Configuration: every option of the library, filled by the host before it creates the client and
// shared by reference afterwards (a setter called later changes what later readers see).
//
//   auto configuration = std::make_shared<pelora::Configuration>("WRITE_KEY", "stg");
//   configuration->flushAt(10).flushInterval(15.0);
#pragma once

#include <any>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/export.hpp"
#include "pelora/platform/paths.hpp"
#include "pelora/state/settings.hpp"

namespace pelora {

class PELORA_API Configuration {
 public:
  struct Values {
    std::string writeKey;
    // "dev" or "stg" select those environments; absent or anything else means production.
    std::optional<std::string> flavor;
    std::any application;  // empty when absent
    bool trackApplicationLifecycleEvents = true;
    bool trackDeeplinks = true;
    std::int64_t flushAt = 20;    // events stored before an upload starts
    double flushInterval = 30.0;  // seconds between timed uploads
    std::optional<Settings> defaultSettings;
    bool autoAddPeloraDestination = true;
    bool enableIAM = true;
    std::string apiHost;  // the production tracking host by default
    std::string peloraAppPushID;
    // Where files go; the user's defaults when absent.
    std::optional<platform::Paths> paths;
    // Transport overrides for every HTTPS request, for local collectors and tests:
    // "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT" entries and a CA bundle file to trust.
    std::vector<std::string> connectTo;
    std::string caBundle;
    // Seconds to wait before the next in-app message pull after one failed (a network error or an
    // answer other than 200). 0, the default, pulls again at once, as the phone SDK does.
    double iamRetryDelay = 0;
  };

  // Defaults everywhere, enableIAM true. Throws std::invalid_argument when `writeKey` is not
  // valid UTF-8 (it is written into every batch as JSON text).
  Configuration(std::string writeKey, std::optional<std::string> flavor);
  Configuration(std::string writeKey, std::optional<std::string> flavor, bool enableIAM);

  // Chainable setters; none validates (a zero flushAt is stored as given).
  Configuration& application(std::any value);
  Configuration& trackApplicationLifecycleEvents(bool value);
  Configuration& trackDeeplinks(bool value);
  Configuration& flushAt(std::int64_t value);
  Configuration& flushInterval(double value);
  Configuration& defaultSettings(Settings value);
  Configuration& autoAddPeloraDestination(bool value);
  Configuration& apiHost(std::string value);
  Configuration& peloraAppPushID(std::string value);
  Configuration& paths(platform::Paths value);
  Configuration& connectTo(std::vector<std::string> value);
  Configuration& caBundle(std::string value);
  Configuration& iamRetryDelay(double seconds);

  // Read by the library; hosts change options through the constructors and setters.
  Values values;
};

}  // namespace pelora
