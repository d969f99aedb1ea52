// DeliverySchedule: the one place that decides when the upload destination sends again and what a
// failed upload means for its batch. The destination asks it from every flush (its timer, flushAt
// and a flush with a deadline) and tells it every outcome; it is confined to the destination's
// uploads queue.
//
// Without a DeliveryPolicy a failed batch stays and goes again with a later flush; while the last
// round failed, a flush sends one known batch first (a probe) instead of finishing and listing
// every batch, and a service that cannot be reached at all is remembered so that a flush with a
// deadline gives up at once. With a policy each batch also waits out its own backoff, a batch too
// large is split, and one refused for good is set aside.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "pelora/delivery/http_client.hpp"
#include "pelora/state/configuration.hpp"

namespace pelora {

// What an upload's answer means for its batch.
enum class UploadOutcome {
  delivered,    // 2xx: the batch may go
  unreachable,  // no connection at all: refused, no route, unknown host
  retryLater,   // anything else that failed: 5xx, 429, 3xx, a timeout, a broken connection
  tooLarge,     // 413
  refused,      // 400, 401, 403: sending it again will not help
  gone,         // the batch file is no longer there (sent or dropped by someone else)
};

UploadOutcome classifyUpload(const HTTPResult& result) noexcept;

class DeliverySchedule {
 public:
  using Clock = std::chrono::steady_clock;

  // What to do with a batch after its upload ended.
  enum class Action { keep, forget, split, setAside };

  explicit DeliverySchedule(std::optional<DeliveryPolicy> policy,
                            std::uint64_t seed = std::random_device{}());

  // The wait after `failures` failures in a row: `initial` doubled per further failure, capped at
  // `cap`, then scaled by a jitter factor in [0.5, 1] from `random` (spreading a fleet's retries).
  static std::chrono::milliseconds backoff(int failures, std::chrono::milliseconds initial,
                                           std::chrono::milliseconds cap, std::uint64_t random);

  // Records how an upload of `batch` ended and says what to do with the file.
  Action record(const std::string& batch, UploadOutcome outcome,
                std::optional<std::chrono::seconds> retryAfter, Clock::time_point now);
  // Whether `batch` may be sent at `now` (with a policy, once its wait has ended).
  bool mayAttempt(const std::string& batch, Clock::time_point now) const;
  // Whether a failure ends the round: its other batches wait for the next flush.
  bool endsRound(UploadOutcome outcome) const noexcept;
  // A round ended; `failed` when any of its uploads failed.
  void roundEnded(bool failed, Clock::time_point now);
  // Batches that are no longer listed need no state.
  void keepOnly(const std::deque<std::filesystem::path>& listed);

  // The last attempt could not reach the service at all.
  bool unreachable() const noexcept { return unreachable_; }
  // The last round failed: a flush probes with one known batch before finishing and listing.
  bool failing() const noexcept { return failing_; }
  // Whether a flush that nobody asked for (timer, flushAt) may start uploads now.
  bool automaticFlushAllowed(Clock::time_point now) const noexcept;
  // When a flush with a deadline should try again after a round that left `backlog` behind.
  Clock::time_point nextAttempt(Clock::time_point now,
                                const std::deque<std::filesystem::path>& backlog) const;

 private:
  struct BatchState {
    int failures = 0;  // tries that failed in a row (refusals counted apart)
    int refusals = 0;
    Clock::time_point notBefore{};
  };
  std::chrono::milliseconds nextWait(int failures);

  std::optional<DeliveryPolicy> policy_;
  std::mt19937_64 random_;
  std::unordered_map<std::string, BatchState> batches_;  // only with a policy
  bool unreachable_ = false;
  bool failing_ = false;
  int failedRounds_ = 0;
  Clock::time_point lastFailure_{};
  int offlineFailures_ = 0;
  Clock::time_point offlineUntil_{};
};

}  // namespace pelora
