// Small building blocks shared by the client and its destinations. Queue<T> has no lock: its owner
// confines each instance to one serial queue. Atomic<T> guards its value with its own mutex, held
// only for a copy, a store or an in-place change. QueueTimer owns a timer source firing on a queue.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/platform/dispatch.hpp"

namespace pelora {

// Prints "**** Queue Size : <count>" while debug logs are on.
PELORA_API void reportQueueSize(std::size_t count);
// "[a, b]" from already described elements.
PELORA_API std::string describeList(const std::vector<std::string>& elements);
// The readable name of a type, for elements that cannot print themselves.
PELORA_API std::string typeName(const std::type_info& type);

namespace detail {
template <class T>
concept Streamable = requires(std::ostream& out, const T& value) {
  out << value;
};

template <class T>
std::string describeElement(const T& value) {
  if constexpr (std::convertible_to<const T&, std::string_view>) {
    return "\"" + std::string(std::string_view(value)) + "\"";
  } else if constexpr (Streamable<T>) {
    std::ostringstream out;
    out << value;
    return out.str();
  } else {
    return typeName(typeid(T));
  }
}
}  // namespace detail

// A first-in-first-out list of values. Every change prints the new size while debug logs are on,
// which is how a queue that keeps growing shows up in a host's log.
template <class T>
class Queue {
 public:
  void enqueue(T element) {
    list_.push_back(std::move(element));
    reportQueueSize(list_.size());
  }
  // Nothing when empty, rather than a precondition: callers drain until it says so.
  std::optional<T> dequeue() {
    if (list_.empty()) return std::nullopt;
    std::optional<T> first(std::move(list_.front()));
    list_.pop_front();
    reportQueueSize(list_.size());
    return first;
  }
  std::optional<T> peek() const {
    if (list_.empty()) return std::nullopt;
    return list_.front();
  }
  bool isEmpty() const noexcept { return list_.empty(); }
  std::size_t count() const noexcept { return list_.size(); }
  // "[a, b]", oldest first, strings quoted: how a queue appears in a debug line.
  std::string description() const {
    std::vector<std::string> elements;
    elements.reserve(list_.size());
    for (const T& element : list_) elements.push_back(detail::describeElement(element));
    return describeList(elements);
  }

 private:
  std::deque<T> list_;
};

// A value guarded by its own mutex. A read-then-act sequence is two separate locked steps unless
// done inside modify().
template <class T>
class Atomic {
 public:
  explicit Atomic(T value = T{}) : value_(std::move(value)) {}
  Atomic(const Atomic&) = delete;
  Atomic& operator=(const Atomic&) = delete;

  // A copy, not a reference: the value may change the moment the lock is let go.
  T get() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  void set(T value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
  }
  // For a read-then-write that must not interleave with another thread's (an increment, an
  // append): `change(T&)` runs under the lock, so it must not block or call back into this value.
  template <class F>
  void modify(F&& change) {
    std::lock_guard lock(mutex_);
    std::forward<F>(change)(value_);
  }

 private:
  mutable std::mutex mutex_;
  T value_;
};

// A hint to the CPU inside a short wait loop (another thread is about to finish something).
inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Runs blocks on the calling thread, one at a time: a serial queue that is only ever used with
// sync, without its hand-off. A thread finishing a block lets the next one in without waiting for
// a sleeping waiter to be scheduled first, so threads that outnumber the cores do not queue up
// behind one that is not running. Entering again from the thread inside is a programming error.
class PELORA_API ExclusiveRunner {
 public:
  explicit ExclusiveRunner(std::string label) : label_(std::move(label)) {}
  ExclusiveRunner(const ExclusiveRunner&) = delete;
  ExclusiveRunner& operator=(const ExclusiveRunner&) = delete;

  template <class F>
  std::invoke_result_t<F&> sync(F&& block) {
    Entered entered(*this);
    return block();
  }
  // True on the thread running a block.
  bool isCurrent() const noexcept {
    return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  const std::string& label() const noexcept { return label_; }

 private:
  struct Entered {
    explicit Entered(ExclusiveRunner& runner);
    ~Entered();
    ExclusiveRunner& runner;
  };

  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  const std::string label_;
};

// A repeating timer on a queue: first fires `interval` seconds after construction, then every
// `interval` seconds, until destroyed. Once destroyed, the handler is never called again.
class PELORA_API QueueTimer {
 public:
  enum class State { suspended, resumed };

  // Starts at once. `handler` runs on `queue`, never on the caller's thread, so it may use what
  // the queue confines without a lock.
  QueueTimer(double interval, std::shared_ptr<platform::SerialQueue> queue,
             std::function<void()> handler);
  ~QueueTimer();
  QueueTimer(const QueueTimer&) = delete;
  QueueTimer& operator=(const QueueTimer&) = delete;

  // Safe to call more than once: the timer source may only be resumed once.
  void resume();

  double interval() const noexcept { return interval_; }
  const std::shared_ptr<platform::SerialQueue>& queue() const noexcept { return queue_; }

 private:
  const double interval_;
  const std::shared_ptr<platform::TimerSource> timer_;
  const std::shared_ptr<platform::SerialQueue> queue_;
  const std::function<void()> handler_;
  Atomic<State> state_{State::suspended};
};

}  // namespace pelora
