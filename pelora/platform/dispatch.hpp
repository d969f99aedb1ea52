// Dispatch: serial queues on a shared worker pool, the process-wide main queue, and timers.
// A SerialQueue runs its tasks one at a time in submission order. `async` returns at once;
// `sync` waits until every earlier task has run and then runs the block on the caller's own
// thread (so a sync block may safely touch the caller's stack). Calling `sync` on the queue that
// is running the caller is a programming error and fatal (it could only deadlock).
// Process-lifetime pieces (the pool, the main queue, the timer thread) are never destroyed, so a
// host may call exit() while tasks run.
#pragma once

#include "pelora/core/export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace pelora::platform {

using Task = std::function<void()>;

// Follows the subsystem prefix in the library's queue labels ("state.update." + suffix).
inline constexpr std::string_view queueLabelSuffix = "com.pelora.analytics";

class PELORA_API SerialQueue {
 public:
  static std::shared_ptr<SerialQueue> create(std::string label);
  // The process-wide main queue: run by a library thread unless a host executor is set.
  static std::shared_ptr<SerialQueue> main();
  // Hands the main queue to a host loop: `executor` must run each function it is given, in order,
  // on the host's UI thread. Later main-queue work goes there; an empty executor gives it back.
  static void setMainExecutor(std::function<void(Task)> executor);

  virtual ~SerialQueue() = default;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const noexcept { return label_; }
  // Runs `task` later, after every task submitted before it. An exception escaping `task` is
  // printed and dropped; the queue goes on.
  virtual void async(Task task) = 0;
  // Runs `block` on the calling thread once every earlier task has finished; returns its result.
  // An exception from `block` reaches the caller, and the queue is released.
  template <class F>
  std::invoke_result_t<F&> sync(F&& block) {
    if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
      runSync(BlockRef(block));
    } else {
      std::optional<std::invoke_result_t<F&>> result;
      auto store = [&] { result.emplace(block()); };
      runSync(BlockRef(store));
      return std::move(*result);
    }
  }
  // True on a thread that is currently running a task (async or sync) of this queue.
  virtual bool isCurrent() const noexcept = 0;

 protected:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}
  // The caller's block, borrowed for the duration of runSync: no copy, no allocation.
  class __attribute__((visibility("hidden"))) BlockRef {
   public:
    template <class F>
    explicit BlockRef(F& block) noexcept
        : invoke_([](const void* context) { (*static_cast<F*>(const_cast<void*>(context)))(); }),
          context_(std::addressof(block)) {}
    void operator()() const { invoke_(context_); }

   private:
    void (*invoke_)(const void* context);
    const void* context_;
  };
  virtual void runSync(BlockRef block) = 0;

 private:
  std::string label_;
};

// Ends the library's scheduler threads that have nothing to do (the pool's workers, the main
// queue's thread, the timer thread) and waits until they have exited, or `deadline`; true when
// none runs. They start again when work arrives. A thread still busy, or with a timer pending,
// keeps running.
PELORA_API bool stopIdleThreads(std::chrono::steady_clock::time_point deadline);

// Runs `task` on `queue` once `delay` has passed.
PELORA_API void asyncAfter(const std::shared_ptr<SerialQueue>& queue,
                           std::chrono::nanoseconds delay, Task task);

// A repeating (or one-shot) timer that runs its handler on a queue, like a dispatch timer source:
// created suspended; `resume` starts it; `cancel` stops it for good (a handler already running
// finishes; one submitted but not yet started is skipped). Releasing the last reference cancels
// it. A firing is not submitted while the previous one has not started yet, so slow handlers
// never pile up. Deadlines are kept by one process-wide timer thread.
class PELORA_API TimerSource {
 public:
  static std::shared_ptr<TimerSource> create(std::shared_ptr<SerialQueue> queue);
  virtual ~TimerSource() = default;

  // First deadline `start` from now, then every `interval` (zero: fire once).
  virtual void schedule(std::chrono::nanoseconds start, std::chrono::nanoseconds interval) = 0;
  // The handler in place when a firing runs on the queue is the one called.
  virtual void setHandler(Task handler) = 0;
  // Suspensions nest; resuming more often than suspended is fatal (the source starts suspended
  // once). A deadline passed while suspended fires once on resume.
  virtual void resume() = 0;
  virtual void suspend() = 0;
  virtual void cancel() = 0;
};

}  // namespace pelora::platform
