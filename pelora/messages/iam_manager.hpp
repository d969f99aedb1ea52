// IAMManager: keeps one long-poll pull open against the in-app message service, queues every
// message it delivers, and presents them one at a time full screen (IAMFullScreenViewController).
// One shared instance. Pulls run on an HTTP session of its own: each completion starts the next
// pull from the session's worker, so no thread is made per pull; after a few failures in a row a
// timer starts it instead, after a wait that grows until a pull succeeds. Showing, its timers and
// closing run on the main queue. Prints only while debug logs are on.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/messages/iam_records.hpp"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/ui.hpp"

namespace pelora {

class PELORA_API IAMManager : public std::enable_shared_from_this<IAMManager> {
 public:
  // What the client's start-up hands over.
  struct Setup {
    std::string hostDomain;    // the service's base URL for the flavor (inAppMessageBaseURL)
    std::string workSpaceId;   // the write key; empty stops polling at once
    std::string peloraUserId;  // the device-level user id, or empty
    // Transport overrides, as for tracking (local services and tests), and the host's proxy.
    std::vector<std::string> connectTo;
    std::string caBundle;
    std::string proxy;
    // The host's fixed wait before the next pull after a pull that failed (a network error or an
    // answer other than 200). Zero (the default) leaves the waits to the backoff below.
    std::chrono::milliseconds retryDelay{0};
    // Without a fixed wait: the first wait of the backoff and its longest (tests shorten them).
    std::chrono::milliseconds backoffStart{kBackoffStart};
    std::chrono::milliseconds backoffCap{kBackoffCap};
    // The longest one pull may take, however the service drips its answer; the next one follows.
    std::chrono::milliseconds pullTimeLimit{kPullTimeLimit};
  };

  // Failed pulls in a row that are still followed at once: a dropped connection or a service
  // restarting is usually over by then, and a message should not wait for a backoff.
  static constexpr std::uint32_t kImmediateRetries = 3;
  // Past those, the wait doubles from this up to the cap, so that an unreachable service costs
  // next to nothing however long the device stays offline.
  static constexpr std::chrono::milliseconds kBackoffStart{250};
  static constexpr std::chrono::milliseconds kBackoffCap{std::chrono::seconds(60)};
  // The wait before the next pull after `failures` failed pulls in a row, without a fixed retry
  // delay: zero up to kImmediateRetries, then a step of `start` doubled each time up to `cap`;
  // `unit` (a random number in [0, 1)) picks the wait from half the step (0) to all of it.
  static std::chrono::milliseconds backoffWait(std::uint32_t failures, double unit,
                                               std::chrono::milliseconds start,
                                               std::chrono::milliseconds cap) noexcept;

  // A pull is held open by the service until it has a message; past this it is started afresh.
  static constexpr std::chrono::milliseconds kPullTimeLimit{std::chrono::minutes(5)};
  // Messages waiting to be shown; past this the oldest unshown one is dropped (a service may send
  // them faster than anyone can read them).
  static constexpr std::size_t kMaxQueuedMessages = 16;
  // ... and at most this many bytes of them (a pull may bring a few MiB).
  static constexpr std::size_t kMaxQueuedBytes = 16 * 1024 * 1024;
  // The longest wait before a timed message is shown.
  static constexpr std::chrono::seconds kMaxShowDelay{std::chrono::hours(24)};

  // The single instance, made on first use; never destroyed.
  static std::shared_ptr<IAMManager> shared();

  // The start-up with in-app messages on: prints "IAM : Init -enableIAM", takes the setup, prints
  // "--- Start Polling ----" and starts the pull loop (a loop already running is replaced). Returns
  // this start's token, for stopPolling.
  std::uint64_t start(Setup setup);
  // One pull; the next follows its completion. Cancels a pull still in flight.
  void longPoll();
  // Ends the pull loop and everything it started: the pull in flight, a wait before the next,
  // open notifications in flight, messages waiting to be shown and a timed one not shown yet. No
  // thread of the manager's is left busy. A message on screen stays until it closes, and sends no
  // open notification. With `startedAs`, only when the loop running is still that start's (one
  // client does not stop another's).
  void stopPolling(std::optional<std::uint64_t> startedAs = std::nullopt);
  // Whether a pull is in flight.
  bool isPolling() const;
  // Pulls started since the process began (for measuring the loop).
  std::uint64_t pullsStarted() const noexcept { return pullsStarted_.load(); }

  // Called by the full-screen view when it shows `data`: requests its actionOpen with GET.
  void activeOpenIAM(const IAMData& data);
  // Called by the full-screen view once closed: the next message follows 0.3 s later.
  void dismissIAM();

  // Main queue only: whether a message is shown or scheduled to be, and the delayed one's count.
  bool isPresenting() const noexcept { return isPresenting_; }
  std::int64_t countDown() const noexcept { return countDown_; }
  // Messages received and not yet shown.
  std::size_t queuedCount() const;
  // Messages dropped unshown because the queue was full, since the process began.
  std::uint64_t droppedCount() const noexcept { return dropped_.load(); }

  IAMManager();
  IAMManager(const IAMManager&) = delete;
  IAMManager& operator=(const IAMManager&) = delete;

 private:
  void startPolling();
  void pullFinished(const std::shared_ptr<platform::HttpTask>& task,
                    const std::optional<platform::HttpResponse>& response,
                    const std::optional<platform::HttpError>& error, std::uint64_t generation);
  void handleBody(const std::string& body);
  // Queues `data`, dropping the oldest unshown messages past kMaxQueuedMessages or
  // kMaxQueuedBytes.
  void enqueue(IAMData data);
  // With mutex_ held: the oldest waiting message, its bytes no longer counted.
  std::optional<IAMData> dequeueLocked();
  static std::size_t sizeOf(const IAMData& data) noexcept;
  void appendError(const std::string& text);
  // Main queue.
  void showNext();
  void present(const IAMData& data, const std::string& title);
  class CallbackScope;

  mutable std::mutex mutex_;  // guards the members down to errorMessage_
  std::string hostDomain_;
  std::string workSpaceId_;
  std::string peloraUserId_;
  std::chrono::milliseconds retryDelay_{0};
  std::chrono::milliseconds backoffStart_{kBackoffStart};
  std::chrono::milliseconds backoffCap_{kBackoffCap};
  std::uint32_t failuresInARow_ = 0;  // reset by a start and by a pull that succeeded
  std::minstd_rand jitter_;           // draws the backoff's waits
  Queue<IAMData> mQueue_;
  std::shared_ptr<platform::HttpTask> dataTask_;
  std::shared_ptr<platform::HttpSession> defaultSession_;  // none while stopped
  // Open notifications in flight (a session drops a task once it completes); ended with the pulls.
  std::vector<std::weak_ptr<platform::HttpTask>> noticeTasks_;
  std::shared_ptr<platform::TimerSource> retryTimer_;  // the wait before the next pull, if any
  std::size_t queuedBytes_ = 0;                        // of the messages in mQueue_
  bool stopped_ = false;                               // stopPolling() ran and no start() since
  // The timers of a timed message not shown yet (its show and its countdown).
  std::vector<std::shared_ptr<platform::ui::Timer>> showTimers_;
  platform::HttpSessionOptions sessionOptions_;  // of the last start()
  std::uint64_t generation_ = 0;  // a new start or a stop ends the pulls of the one before
  // Pull completions and retries running now: each may hold the session a moment longer, so a
  // stop waits for them (shutdown counts on the session's thread having ended).
  int runningCallbacks_ = 0;
  std::condition_variable callbacksDone_;
  std::string errorMessage_;
  std::atomic<std::uint64_t> pullsStarted_{0};
  std::atomic<std::uint64_t> dropped_{0};

  // Main queue only.
  bool isPresenting_ = false;
  bool pendingShow_ = false;  // a timed message is waiting for its time
  std::int64_t countDown_ = 0;
};

}  // namespace pelora
