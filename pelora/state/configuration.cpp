#include "pelora/state/configuration.hpp"

#include <stdexcept>

#include "pelora/core/coding.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/http_session.hpp"

namespace pelora {

Configuration::Configuration(std::string writeKey, std::optional<std::string> flavor)
    : Configuration(std::move(writeKey), std::move(flavor), true) {}

Configuration::Configuration(std::string writeKey, std::optional<std::string> flavor,
                             bool enableIAM) {
  // The key goes into every batch as JSON text; bytes that are not text would change on the way.
  if (!isValidUTF8(writeKey)) {
    throw std::invalid_argument("Pelora: the write key is not valid UTF-8 text");
  }
  values.writeKey = std::move(writeKey);
  values.flavor = std::move(flavor);
  values.enableIAM = enableIAM;
  values.apiHost = std::string(productionTrackingHost);
}

Configuration& Configuration::application(std::any value) {
  values.application = std::move(value);
  return *this;
}

Configuration& Configuration::trackApplicationLifecycleEvents(bool value) {
  values.trackApplicationLifecycleEvents = value;
  return *this;
}

Configuration& Configuration::trackDeeplinks(bool value) {
  values.trackDeeplinks = value;
  return *this;
}

Configuration& Configuration::flushAt(std::int64_t value) {
  values.flushAt = value;
  return *this;
}

Configuration& Configuration::flushInterval(double value) {
  values.flushInterval = value;
  return *this;
}

Configuration& Configuration::defaultSettings(Settings value) {
  values.defaultSettings = std::move(value);
  return *this;
}

Configuration& Configuration::autoAddPeloraDestination(bool value) {
  values.autoAddPeloraDestination = value;
  return *this;
}

Configuration& Configuration::apiHost(std::string value) {
  values.apiHost = std::move(value);
  return *this;
}

Configuration& Configuration::peloraAppPushID(std::string value) {
  values.peloraAppPushID = std::move(value);
  return *this;
}

Configuration& Configuration::paths(platform::Paths value) {
  values.paths = std::move(value);
  return *this;
}

Configuration& Configuration::connectTo(std::vector<std::string> value) {
  values.connectTo = std::move(value);
  return *this;
}

Configuration& Configuration::caBundle(std::string value) {
  values.caBundle = std::move(value);
  return *this;
}

Configuration& Configuration::iamRetryDelay(double seconds) {
  values.iamRetryDelay = seconds;
  return *this;
}

Configuration& Configuration::maxStoredBytes(std::uint64_t bytes) {
  values.maxStoredBytes = bytes;
  return *this;
}

Configuration& Configuration::maxBatchAge(double seconds) {
  values.maxBatchAge = seconds;
  return *this;
}

Configuration& Configuration::deliveryPolicy(DeliveryPolicy policy) {
  values.deliveryPolicy = policy;
  return *this;
}

Configuration& Configuration::requireConsent(bool value) {
  values.requireConsent = value;
  return *this;
}

Configuration& Configuration::compressBatches(bool value) {
  values.compressBatches = value;
  return *this;
}

Configuration& Configuration::proxy(std::string url) {
  if (url.empty()) {
    values.proxy.clear();
    return *this;
  }
  auto proxy = platform::proxyURL(url);
  if (!proxy) {
    // Not quoted back: the text may hold a password.
    throw std::invalid_argument("proxy: not a proxy URL such as \"http://host:port\"");
  }
  values.proxy = std::move(*proxy);
  return *this;
}

Configuration& Configuration::syncWindow(std::chrono::milliseconds window) {
  if (window.count() <= 0) throw std::invalid_argument("syncWindow: must be positive");
  values.syncWindow = window;
  return *this;
}

Configuration& Configuration::syncEveryEvent(bool value) {
  values.syncEveryEvent = value;
  return *this;
}

}  // namespace pelora
