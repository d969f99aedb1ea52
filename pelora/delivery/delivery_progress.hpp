// DeliveryProgress: what a flush with a deadline waits on. Every upload or post that ends moves it
// on, so the waiter wakes when something changed instead of polling on a timer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace pelora {

class DeliveryProgress {
 public:
  using Clock = std::chrono::steady_clock;

  // How often it has moved on: read before looking at the state, then wait past it.
  std::uint64_t generation() const {
    std::lock_guard lock(mutex_);
    return generation_;
  }
  // Something ended (an upload, a post, a round): wakes every waiter.
  void advance() {
    {
      std::lock_guard lock(mutex_);
      ++generation_;
    }
    changed_.notify_all();
  }
  // Waits until it moves past `seen` or `until` passes.
  void waitPast(std::uint64_t seen, Clock::time_point until) const {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, until, [&] { return generation_ != seen; });
  }
  // Waits until `done()` holds, looking again each time it moves on; false when `until` passed
  // first. `done` must turn true only for a change that is followed by an advance().
  template <class Done>
  bool waitUntil(Done&& done, Clock::time_point until) const {
    for (;;) {
      const std::uint64_t seen = generation();
      if (done()) return true;
      if (Clock::now() >= until) return false;
      waitPast(seen, until);
    }
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::uint64_t generation_ = 0;
};

}  // namespace pelora
