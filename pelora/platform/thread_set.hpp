// ThreadSet: the threads of one owner (a scheduler, the HTTP workers), so that a caller can wait
// until they have really ended. Internal to the platform folder; not installed.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

namespace pelora::platform {

// Threads are started under the owner's lock, each with an `Info` the owner may look at. A thread
// that ends while a caller waits leaves its handle for that caller to join; with nobody waiting
// it detaches itself. Every member is called with the owner's lock held.
template <class Info = std::monostate>
class ThreadSet {
 public:
  using Clock = std::chrono::steady_clock;

  // The new thread waits for the owner's lock before it could look itself up.
  template <class F>
  void start(F body, Info info = {}) {
    std::thread thread(std::move(body));
    const auto id = thread.get_id();
    running_.push_back(Entry{id, std::move(thread), std::move(info)});
  }
  // The calling thread's last act under the owner's lock.
  void finishCurrent() {
    const auto id = std::this_thread::get_id();
    auto it = std::find_if(running_.begin(), running_.end(),
                           [&](const Entry& entry) { return entry.id == id; });
    if (it == running_.end()) return;
    if (waiters_ > 0) {
      finished_.push_back(std::move(it->thread));
    } else {
      it->thread.detach();
    }
    running_.erase(it);
    ended_.notify_all();
  }
  std::size_t running() const noexcept { return running_.size(); }
  // Whether the info of a running thread passes `test`.
  template <class Test>
  bool anyRunning(Test test) const {
    return std::any_of(running_.begin(), running_.end(),
                       [&](const Entry& entry) { return test(entry.info); });
  }

  // Waits until `done()` or `deadline`, looking again when a thread ends and, with `recheck`,
  // at least that often (for conditions nothing notifies of); joins the threads that ended
  // meanwhile. Returns done().
  template <class Done>
  bool waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline, Done done,
                 Clock::duration recheck = Clock::duration::zero()) {
    ++waiters_;
    while (!done()) {
      const auto now = Clock::now();
      if (now >= deadline) break;
      ended_.wait_until(
          lock, recheck == Clock::duration::zero() ? deadline : std::min(deadline, now + recheck));
    }
    --waiters_;  // threads ending from now on detach themselves
    const bool result = done();
    std::vector<std::thread> ended;
    ended.swap(finished_);
    lock.unlock();
    for (auto& thread : ended) thread.join();  // past their last lock: quick
    lock.lock();
    return result;
  }
  // Asks the owner's idle threads to end (`stopping` is what they look at, `wake` wakes them)
  // and waits until none runs or `deadline`. True when none runs.
  bool stopIdle(std::unique_lock<std::mutex>& lock, std::condition_variable& wake,
                unsigned& stopping, Clock::time_point deadline) {
    ++stopping;
    wake.notify_all();
    const bool none = waitUntil(lock, deadline, [&] { return running_.empty(); });
    --stopping;
    return none;
  }

 private:
  struct Entry {
    std::thread::id id;
    std::thread thread;
    Info info;
  };
  std::vector<Entry> running_;
  std::vector<std::thread> finished_;
  std::condition_variable ended_;
  unsigned waiters_ = 0;
};

}  // namespace pelora::platform
