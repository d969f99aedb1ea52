#include "pelora/platform/concurrency.hpp"

#include "pelora/core/fatal_error.hpp"

#include <cxxabi.h>
#include <chrono>
#include <cstdlib>

#include "pelora/platform/console.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora {

namespace {
constexpr int kSpins = 100;
}  // namespace

ExclusiveRunner::Entered::Entered(ExclusiveRunner& runner) : runner(runner) {
  if (runner.isCurrent()) {
    fatalError("sync on '" + runner.label_ +
               "' from a block already running on it: that would deadlock");
  }
  // Blocks are short (an append, a state read): look again for a moment before sleeping, since
  // a sleep and the wake-up it needs cost more than most blocks.
  bool locked = runner.mutex_.try_lock();
  for (int spin = 0; !locked && spin < kSpins; ++spin) {
    cpuRelax();
    if (runner.owner_.load(std::memory_order_relaxed) == std::thread::id()) {
      locked = runner.mutex_.try_lock();
    }
  }
  if (!locked) runner.mutex_.lock();
  runner.owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

ExclusiveRunner::Entered::~Entered() {
  runner.owner_.store(std::thread::id(), std::memory_order_relaxed);
  runner.mutex_.unlock();
}

void reportQueueSize(std::size_t count) {
  if (!platform::log::debugEnabled()) return;
  platform::printLine("**** Queue Size : " + std::to_string(count), LogLevel::debug);
}

std::string describeList(const std::vector<std::string>& elements) {
  std::string text = "[";
  for (std::size_t i = 0; i < elements.size(); ++i) {
    if (i > 0) text += ", ";
    text += elements[i];
  }
  return text + "]";
}

std::string typeName(const std::type_info& type) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = status == 0 && demangled != nullptr ? demangled : type.name();
  std::free(demangled);
  return name;
}

namespace {
std::chrono::nanoseconds toNanoseconds(double seconds) {
  if (!(seconds > 0)) return std::chrono::nanoseconds::zero();  // also NaN
  constexpr double kCentury = 100.0 * 365 * 24 * 3600;          // keeps the cast in range
  if (seconds > kCentury) seconds = kCentury;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds));
}
}  // namespace

QueueTimer::QueueTimer(double interval, std::shared_ptr<platform::SerialQueue> queue,
                       std::function<void()> handler)
    : interval_(interval),
      timer_(platform::TimerSource::create(queue)),
      queue_(std::move(queue)),
      handler_(std::move(handler)) {
  const auto period = toNanoseconds(interval_);
  timer_->schedule(period, period);
  // The source keeps its own copy: a firing that already started can outlive this object.
  timer_->setHandler([handler = handler_] {
    if (handler) handler();
  });
  resume();
}

QueueTimer::~QueueTimer() {
  timer_->setHandler([] {});
  timer_->cancel();
  // A source must not be dropped while suspended; this resumes only a never-resumed one.
  resume();
}

void QueueTimer::resume() {
  bool resumeNow = false;
  state_.modify([&](State& state) {
    if (state == State::suspended) {
      state = State::resumed;
      resumeNow = true;
    }
  });
  if (resumeNow) timer_->resume();
}

}  // namespace pelora
