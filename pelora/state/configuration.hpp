// Configuration: every option of the library, filled by the host before it creates the client and
// shared by reference afterwards (a setter called later changes what later readers see).
//
//   auto configuration = std::make_shared<pelora::Configuration>("WRITE_KEY", "stg");
//   configuration->flushAt(10).flushInterval(15.0);
#pragma once

#include <any>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/platform/paths.hpp"
#include "pelora/state/settings.hpp"

namespace pelora {

// How uploads react to a service that fails (an opt-in; without it a failed batch is simply sent
// again with a later flush). Every wait is doubled from `initialBackoff` per failure of the same
// batch, with jitter, up to `maxBackoff`.
struct DeliveryPolicy {
  // The first wait after a batch failed (a network error, 5xx or 429).
  std::chrono::milliseconds initialBackoff{std::chrono::seconds(1)};
  // The longest wait, also the cap on a service's Retry-After.
  std::chrono::milliseconds maxBackoff{std::chrono::minutes(10)};
  // A batch answered 413 is cut into halves (each a batch of its own) down to single events; a
  // single event still refused is set aside. Off: a 413 counts as a refusal below.
  bool splitTooLarge = true;
  // Tries of a batch answered 400, 401 or 403 (or 413 when not split) before it is set aside as
  // "*.refused": kept for inspection, never sent again, removed by the disk bound.
  int refusedAfterTries = 5;
  // While the service cannot be reached (connection refused, no route, unknown host), the timer
  // and recording start no upload until the wait ends; an explicit flush tries at once.
  bool pauseWhileOffline = true;
};

class PELORA_API Configuration {
 public:
  struct Values {
    std::string writeKey;
    // "dev" or "stg" select those environments; absent or anything else means production.
    std::optional<std::string> flavor;
    // Kept for compatibility and handed to plugins that ask; the library itself never reads it.
    std::any application;  // empty when absent
    // Kept for compatibility; no effect here: the library records no lifecycle or deep-link events.
    bool trackApplicationLifecycleEvents = true;
    bool trackDeeplinks = true;
    std::int64_t flushAt = 20;    // events stored before an upload starts
    double flushInterval = 30.0;  // seconds between timed uploads
    // The settings before the first settings check, which at start replaces them with the write
    // key and the production tracking host: in effect only for that moment.
    std::optional<Settings> defaultSettings;
    bool autoAddPeloraDestination = true;
    bool enableIAM = true;
    // Kept for compatibility; no effect here: batches go to the settings' host, identity-tracking
    // events to the flavor's.
    std::string apiHost;
    std::string peloraAppPushID;
    // Where files go; the user's defaults when absent.
    std::optional<platform::Paths> paths;
    // Transport overrides for every HTTPS request, for local collectors and tests:
    // "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT" entries and a CA bundle file to trust.
    std::vector<std::string> connectTo;
    std::string caBundle;
    // Seconds to wait before the next in-app message pull after one failed (a network error or an
    // answer other than 200). 0, the default, pulls again at once for three failures in a row,
    // then waits from 250 ms doubling up to 60 s (with jitter) until a pull succeeds.
    double iamRetryDelay = 0;
    // Bytes of stored batches (finished and open) past which the oldest finished batches are
    // deleted, their events counted as dropped. 0: no bound.
    std::uint64_t maxStoredBytes = 64u << 20;
    // Seconds after which a finished batch that is still not delivered is dropped. 0: no limit.
    double maxBatchAge = 0;
    // Backoff, splitting and setting aside of refused batches; none by default.
    std::optional<DeliveryPolicy> deliveryPolicy;
    // Events are recorded but nothing leaves the device until PeloraAnalytics::grantConsent().
    bool requireConsent = false;
    // Batch uploads go gzip-compressed ("Content-Encoding: gzip"); the files stay plain JSON.
    bool compressBatches = false;
    // The proxy for every request of the client ("http://host:port"); empty: the environment's
    // https_proxy, all_proxy and no_proxy apply.
    std::string proxy;
    // trackBash copies the event into a journal in memory that survives the process (not a power
    // cut) and returns; a background writer appends it to the batch file and syncs it within
    // this time. flush(deadline) and shutdown(deadline) sync everything first.
    std::chrono::milliseconds syncWindow{100};
    // Instead, each trackBash returns only once its event is synced to disk (slower; a power cut
    // loses nothing that was recorded).
    bool syncEveryEvent = false;
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
  Configuration& maxStoredBytes(std::uint64_t bytes);
  Configuration& maxBatchAge(double seconds);
  Configuration& deliveryPolicy(DeliveryPolicy policy);
  Configuration& requireConsent(bool value);
  Configuration& compressBatches(bool value);
  // Throws std::invalid_argument unless `url` is empty (no proxy of our own) or an http, https or
  // socks proxy URL with a host and nothing after it but "/".
  Configuration& proxy(std::string url);
  // Throws std::invalid_argument unless `window` is positive.
  Configuration& syncWindow(std::chrono::milliseconds window);
  Configuration& syncEveryEvent(bool value);

  // Read by the library; hosts change options through the constructors and setters.
  Values values;
};

}  // namespace pelora
