// Serial queues run on a small shared pool of worker threads; the main queue runs on one library
// thread or on a host executor; timers live on one timer thread with a deadline heap. Threads
// start on demand and end after a while with nothing to do, or at once when stopIdleThreads asks.
// Every scheduler object here is created on first use and leaked, so exit() never waits on or
// destroys anything a worker still touches.
#include "pelora/platform/dispatch.hpp"

#include <pthread.h>
#include "pelora/core/fatal_error.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/thread_set.hpp"

namespace pelora::platform {
namespace {

class QueueImpl;

// The queues whose tasks the current thread is running, innermost first. Frames live on the
// stack of whoever runs the task, so nesting costs no allocation.
struct Frame {
  const QueueImpl* queue;
  Frame* outer;
};
thread_local Frame* currentFrames = nullptr;
thread_local bool onPoolWorker = false;

class FrameScope {
 public:
  explicit FrameScope(const QueueImpl* queue) noexcept : frame_{queue, currentFrames} {
    currentFrames = &frame_;
  }
  ~FrameScope() { currentFrames = frame_.outer; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

bool threadRuns(const QueueImpl* queue) noexcept {
  for (const Frame* frame = currentFrames; frame != nullptr; frame = frame->outer) {
    if (frame->queue == queue) return true;
  }
  return false;
}

void runGuarded(const Task& task, const std::string& label) noexcept {
  try {
    task();
  } catch (const std::exception& error) {
    printLine("pelora: a task on queue " + label + " threw: " + error.what(), LogLevel::error);
  } catch (...) {
    printLine("pelora: a task on queue " + label + " threw a non-standard exception",
              LogLevel::error);
  }
}

// Runs drain jobs of serial queues. A fixed base of threads, plus one extra thread while a worker
// is blocked in `sync` and work waits, so queues that wait on each other cannot starve the pool.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static auto* pool = new WorkerPool;
    return *pool;
  }

  void submit(std::shared_ptr<QueueImpl> queue) {
    std::unique_lock lock(mutex_);
    jobs_.push_back(std::move(queue));
    if (idle_ > 0) {
      lock.unlock();
      wake_.notify_one();
    } else {
      growIfStarved(lock);
    }
  }

  // A pool worker is about to wait in `sync` / has stopped waiting.
  void workerBlocked() {
    std::unique_lock lock(mutex_);
    ++blocked_;
    growIfStarved(lock);
  }
  void workerUnblocked() {
    std::lock_guard lock(mutex_);
    --blocked_;
  }

  // Ends the idle workers and waits until no worker runs, or `deadline`.
  bool stopIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    return threads_.stopIdle(lock, wake_, stopping_, deadline);
  }

 private:
  static constexpr unsigned kMaxThreads = 64;
  static constexpr auto kIdleTime = std::chrono::seconds(10);

  WorkerPool() : base_(std::clamp(std::thread::hardware_concurrency(), 4u, 8u)) {}

  // Workers start on demand: up to base_ that are not blocked in `sync`, at most kMaxThreads.
  void growIfStarved(std::unique_lock<std::mutex>& /*held*/) {
    const unsigned threads = static_cast<unsigned>(threads_.running());
    if (!jobs_.empty() && idle_ == 0 && threads - blocked_ < base_ && threads < kMaxThreads) {
      threads_.start([this] { work(); });
    }
  }

  void work();

  const unsigned base_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<QueueImpl>> jobs_;
  ThreadSet<> threads_;
  unsigned idle_ = 0;
  unsigned blocked_ = 0;
  unsigned stopping_ = 0;  // callers of stopIdle waiting
};

// Where a queue's drains run: the pool, or the main queue's runner.
enum class Runner { pool, main };

// Runs drains of the main queue: on a library thread, or handed to the host's executor.
class MainRunner {
 public:
  static MainRunner& shared() {
    static auto* runner = new MainRunner;
    return *runner;
  }

  void setExecutor(std::function<void(Task)> executor) {
    std::lock_guard lock(mutex_);
    executor_ = std::move(executor);
  }

  void submit(std::shared_ptr<QueueImpl> queue);

  // Ends the runner thread if it is idle and waits until it has, or `deadline`.
  bool stopIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    return thread_.stopIdle(lock, wake_, stopping_, deadline);
  }

 private:
  static constexpr auto kIdleTime = std::chrono::seconds(10);
  void work();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::function<void(Task)> executor_;
  std::shared_ptr<QueueImpl> pending_;
  ThreadSet<> thread_;  // at most one
  unsigned stopping_ = 0;
};

class QueueImpl final : public SerialQueue, public std::enable_shared_from_this<QueueImpl> {
 public:
  QueueImpl(std::string label, Runner runner) : SerialQueue(std::move(label)), runner_(runner) {}

  void async(Task task) override {
    bool start = false;
    {
      std::lock_guard lock(mutex_);
      items_.push_back(Item{std::move(task), nullptr});
      start = !owned_.exchange(true);
    }
    if (start) schedule();
  }

  bool isCurrent() const noexcept override { return threadRuns(this); }

  // Runs queued tasks on the current (runner) thread until the queue is empty, a sync caller
  // takes over, or a batch is done (then it yields to other queues and comes back).
  void drain() {
    FrameScope frame(this);
    for (int done = 0;; ++done) {
      Task task;
      {
        std::unique_lock lock(mutex_);
        if (done == kBatch && !items_.empty() && items_.front().waiter == nullptr) {
          lock.unlock();
          schedule();
          return;
        }
        if (!takeNext(task)) return;
      }
      runGuarded(task, label());
    }
  }

 protected:
  void runSync(BlockRef block) override {
    if (threadRuns(this)) {
      fatalError("SerialQueue::sync on queue '" + label() +
                 "' from a task already running on it: that would deadlock");
    }
    if (!owned_.exchange(true)) {
      // Idle: nothing queued (the queue is never idle with items), so run at once.
      runOwned(block);
      return;
    }
    // Most holders are another sync caller with a short block (a storage write, a state read):
    // wait a moment for the queue to go idle before sleeping, since a sleep and a wake-up cost
    // more than the block itself. Idle means every earlier task has run.
    for (int spin = 0; spin < kSpins; ++spin) {
      cpuRelax();
      if (!owned_.load(std::memory_order_relaxed) && !owned_.exchange(true)) {
        runOwned(block);
        return;
      }
    }
    Waiter waiter;
    bool queued = false;
    {
      std::lock_guard lock(mutex_);
      // Re-check under the lock: the owner may have let go meanwhile.
      if (owned_.exchange(true)) {
        items_.push_back(Item{Task(), &waiter});
        queued = true;
      }
    }
    if (queued) {
      const bool worker = onPoolWorker;
      if (worker) WorkerPool::shared().workerBlocked();
      {
        std::unique_lock lock(mutex_);
        waiter.wake.wait(lock, [&] { return waiter.granted; });
      }
      if (worker) WorkerPool::shared().workerUnblocked();
    }
    runOwned(block);
  }

 private:
  static constexpr int kBatch = 64;
  static constexpr int kSpins = 200;  // about a microsecond or two

  // A sync caller waiting for its turn; lives on that caller's stack.
  struct Waiter {
    std::condition_variable wake;
    bool granted = false;
  };
  // A queued async task, or (with `waiter`) the turn of a sync caller.
  struct Item {
    Task task;
    Waiter* waiter;
  };

  // With the lock held and the queue owned: pops the next task into `task` and returns true; or
  // passes ownership on (to a waiting sync caller, or back to idle) and returns false.
  bool takeNext(Task& task) {
    if (items_.empty()) {
      owned_.store(false);
      return false;
    }
    Item& next = items_.front();
    if (next.waiter != nullptr) {
      Waiter* waiter = next.waiter;
      items_.pop_front();
      waiter->granted = true;
      waiter->wake.notify_one();  // under the lock: the waiter cannot return and vanish first
      return false;
    }
    task = std::move(next.task);
    items_.pop_front();
    return true;
  }

  void runOwned(BlockRef block) {
    struct Release {
      QueueImpl* queue;
      ~Release() { queue->release(); }
    } release{this};
    FrameScope frame(this);
    block();
  }

  // Ends a sync turn: hands the queue to the next sync caller directly (no worker needed), to a
  // drain for pending tasks, or back to idle.
  void release() {
    bool start = false;
    {
      std::lock_guard lock(mutex_);
      if (!items_.empty() && items_.front().waiter == nullptr) {
        start = true;
      } else {
        Task none;
        takeNext(none);
      }
    }
    if (start) schedule();
  }

  void schedule() {
    if (runner_ == Runner::pool) {
      WorkerPool::shared().submit(shared_from_this());
    } else {
      MainRunner::shared().submit(shared_from_this());
    }
  }

  const Runner runner_;
  // True while a drain is scheduled or running or a sync caller holds the queue. Invariant: the
  // queue is never unowned with items (both change together under the mutex), which lets an idle
  // `sync` take the queue with one exchange.
  std::atomic<bool> owned_{false};
  std::mutex mutex_;
  std::deque<Item> items_;
};

void WorkerPool::work() {
  pthread_setname_np(pthread_self(), "pelora-queue");
  onPoolWorker = true;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (jobs_.empty()) {
      ++idle_;
      const bool woke =
          wake_.wait_for(lock, kIdleTime, [&] { return !jobs_.empty() || stopping_ > 0; });
      --idle_;
      if (jobs_.empty() && (!woke || stopping_ > 0)) {
        threads_.finishCurrent();
        return;
      }
      continue;
    }
    std::shared_ptr<QueueImpl> queue = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    queue->drain();
    queue.reset();
    lock.lock();
  }
}

void MainRunner::submit(std::shared_ptr<QueueImpl> queue) {
  std::unique_lock lock(mutex_);
  if (executor_) {
    auto executor = executor_;
    lock.unlock();
    executor([queue = std::move(queue)] { queue->drain(); });
    return;
  }
  pending_ = std::move(queue);
  if (thread_.running() == 0) thread_.start([this] { work(); });
  lock.unlock();
  wake_.notify_one();
}

void MainRunner::work() {
  pthread_setname_np(pthread_self(), "pelora-main");
  std::unique_lock lock(mutex_);
  for (;;) {
    const bool woke =
        wake_.wait_for(lock, kIdleTime, [&] { return pending_ != nullptr || stopping_ > 0; });
    if (pending_ == nullptr) {
      if (!woke || stopping_ > 0) {
        thread_.finishCurrent();
        return;
      }
      continue;
    }
    std::shared_ptr<QueueImpl> queue = std::move(pending_);
    pending_.reset();
    lock.unlock();
    queue->drain();
    queue.reset();
    lock.lock();
  }
}

// ---- timers ----------------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

class TimerSourceImpl;

// One thread that sleeps until the earliest deadline and submits what is due to its queue.
// Also guards the state of every TimerSourceImpl (timer calls are rare; one lock is plenty).
// `now` + `delay`, held at the far end of the clock instead of overflowing into the past (a delay
// of centuries must not fire at once).
Clock::time_point deadlineAfter(Clock::time_point now, std::chrono::nanoseconds delay) noexcept {
  if (delay <= std::chrono::nanoseconds::zero()) return now;
  if (delay > Clock::time_point::max() - now) return Clock::time_point::max();
  return now + delay;
}

class TimerThread {
 public:
  static TimerThread& shared() {
    static auto* timers = new TimerThread;
    return *timers;
  }

  std::mutex mutex;

  struct Entry {
    Clock::time_point deadline;
    std::uint64_t order;
    std::shared_ptr<SerialQueue> queue;  // one-shot work (asyncAfter)
    Task task;
    std::weak_ptr<TimerSourceImpl> source;  // or a firing of a source
    std::uint64_t generation = 0;
  };

  // With `mutex` held.
  void add(Entry entry) {
    entry.order = nextOrder_++;
    heap_.push_back(std::move(entry));
    std::push_heap(heap_.begin(), heap_.end(), later);
    if (thread_.running() == 0) thread_.start([this] { work(); });
    wake_.notify_one();
  }

  // Ends the timer thread if no timer is pending and waits until it has, or `deadline`. With
  // timers pending (another client's) it keeps running: false at once.
  bool stopIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex);
    std::vector<std::shared_ptr<TimerSourceImpl>> seen;
    purgeStaleLocked(seen);
    if (!heap_.empty()) {
      lock.unlock();
      return false;
    }
    lock.unlock();
    seen.clear();  // a last reference may go here: not under the lock
    lock.lock();
    return thread_.stopIdle(lock, wake_, stopping_, deadline);
  }

 private:
  static bool later(const Entry& a, const Entry& b) {
    return a.deadline != b.deadline ? a.deadline > b.deadline : a.order > b.order;
  }

  void work();
  // With `mutex` held: drops the firings of sources that are gone, cancelled, suspended or
  // re-armed since, so that they do not keep the thread alive until their deadline. The sources
  // looked at go into `seen`, to be released unlocked (a last reference may go there).
  void purgeStaleLocked(std::vector<std::shared_ptr<TimerSourceImpl>>& seen);

  std::condition_variable wake_;
  static constexpr auto kIdleTime = std::chrono::seconds(10);

  std::vector<Entry> heap_;
  std::uint64_t nextOrder_ = 0;
  ThreadSet<> thread_;  // at most one
  unsigned stopping_ = 0;
};

class TimerSourceImpl final : public TimerSource,
                              public std::enable_shared_from_this<TimerSourceImpl> {
 public:
  explicit TimerSourceImpl(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

  void schedule(std::chrono::nanoseconds start, std::chrono::nanoseconds interval) override {
    auto& timers = TimerThread::shared();
    std::lock_guard lock(timers.mutex);
    if (cancelled_) return;
    nextDeadline_ = deadlineAfter(Clock::now(), start);
    interval_ = std::max(interval, std::chrono::nanoseconds::zero());
    scheduled_ = true;
    missed_ = false;
    armLocked(timers);
  }

  void setHandler(Task handler) override {
    auto shared = handler ? std::make_shared<const Task>(std::move(handler)) : nullptr;
    std::lock_guard lock(TimerThread::shared().mutex);
    if (!cancelled_) handler_ = std::move(shared);
  }

  void resume() override {
    auto& timers = TimerThread::shared();
    Task submit;
    {
      std::unique_lock lock(timers.mutex);
      if (suspendCount_ == 0) {
        lock.unlock();
        fatalError("TimerSource::resume without a matching suspend (over-resume)");
      }
      if (--suspendCount_ > 0 || cancelled_) return;
      const auto now = Clock::now();
      if (missed_ || (scheduled_ && nextDeadline_ <= now)) {
        // Whatever came due while suspended fires once, now.
        missed_ = false;
        submit = takeFiringLocked();
        if (scheduled_ && nextDeadline_ <= now) advanceLocked(now);
      }
      armLocked(timers);
    }
    if (submit) queue_->async(std::move(submit));
  }

  void suspend() override {
    std::lock_guard lock(TimerThread::shared().mutex);
    ++suspendCount_;
  }

  void cancel() override {
    std::shared_ptr<const Task> handler;  // released outside the lock
    {
      std::lock_guard lock(TimerThread::shared().mutex);
      cancelled_ = true;
      ++generation_;
      handler = std::move(handler_);
    }
  }

  // On the timer thread, with the mutex held: a deadline of this source came due. Returns the
  // work to submit, if any, and re-arms a repeating source.
  // Whether a firing armed with `generation` would still run.
  bool liveLocked(std::uint64_t generation) const {
    return generation == generation_ && !cancelled_ && suspendCount_ == 0;
  }

  Task fireLocked(TimerThread& timers, std::uint64_t generation, Clock::time_point now) {
    // A suspended source keeps its due deadline; resume fires it.
    if (generation != generation_ || cancelled_ || suspendCount_ > 0) return {};
    Task submit = takeFiringLocked();
    advanceLocked(now);
    armLocked(timers);
    return submit;
  }

  const std::shared_ptr<SerialQueue>& queue() const noexcept { return queue_; }

 private:
  void armLocked(TimerThread& timers) {
    if (!scheduled_ || cancelled_ || suspendCount_ > 0) return;
    TimerThread::Entry entry;
    entry.deadline = nextDeadline_;
    entry.source = weak_from_this();
    entry.generation = ++generation_;  // older entries of this source become stale
    timers.add(std::move(entry));
  }

  // A firing for the queue, unless the previous one has not started yet (no pile-up).
  Task takeFiringLocked() {
    if (inFlight_ || !handler_) return {};
    inFlight_ = true;
    return [self = shared_from_this()] { self->runHandler(); };
  }

  // Moves past the deadline that came due, keeping the beat of the first one and skipping beats
  // missed meanwhile; a one-shot source is done.
  void advanceLocked(Clock::time_point now) {
    if (interval_ <= std::chrono::nanoseconds::zero()) {
      scheduled_ = false;
      return;
    }
    nextDeadline_ = deadlineAfter(nextDeadline_, interval_);
    if (nextDeadline_ <= now) {
      nextDeadline_ =
          deadlineAfter(nextDeadline_, ((now - nextDeadline_) / interval_ + 1) * interval_);
    }
  }

  // On the queue: one firing.
  void runHandler() {
    std::shared_ptr<const Task> handler;
    {
      std::lock_guard lock(TimerThread::shared().mutex);
      inFlight_ = false;
      if (cancelled_) return;
      if (suspendCount_ > 0) {
        missed_ = true;  // held back while suspended; resume fires it
        return;
      }
      handler = handler_;
    }
    if (handler && *handler) (*handler)();
  }

  const std::shared_ptr<SerialQueue> queue_;
  // Guarded by TimerThread::mutex.
  std::shared_ptr<const Task> handler_;
  unsigned suspendCount_ = 1;
  bool cancelled_ = false;
  bool scheduled_ = false;
  bool inFlight_ = false;
  bool missed_ = false;
  Clock::time_point nextDeadline_{};
  std::chrono::nanoseconds interval_{};
  std::uint64_t generation_ = 0;
};

void TimerThread::purgeStaleLocked(std::vector<std::shared_ptr<TimerSourceImpl>>& seen) {
  const auto removed = std::erase_if(heap_, [&](const Entry& entry) {
    if (entry.queue) return false;  // one-shot work is never stale
    auto source = entry.source.lock();
    if (!source) return true;
    seen.push_back(source);
    return !source->liveLocked(entry.generation);
  });
  if (removed > 0) std::make_heap(heap_.begin(), heap_.end(), later);
}

void TimerThread::work() {
  pthread_setname_np(pthread_self(), "pelora-timer");
  std::unique_lock lock(mutex);
  for (;;) {
    if (stopping_ > 0) {
      std::vector<std::shared_ptr<TimerSourceImpl>> seen;
      purgeStaleLocked(seen);
      lock.unlock();
      seen.clear();
      lock.lock();
    }
    if (heap_.empty()) {
      const bool woke =
          wake_.wait_for(lock, kIdleTime, [&] { return !heap_.empty() || stopping_ > 0; });
      if (heap_.empty() && (!woke || stopping_ > 0)) {
        thread_.finishCurrent();
        return;
      }
      continue;
    }
    const auto now = Clock::now();
    if (heap_.front().deadline > now) {
      const auto deadline = heap_.front().deadline;  // a copy: the heap may grow meanwhile
      wake_.wait_until(lock, deadline);
      continue;
    }
    std::pop_heap(heap_.begin(), heap_.end(), later);
    Entry due = std::move(heap_.back());
    heap_.pop_back();
    std::shared_ptr<SerialQueue> queue = std::move(due.queue);
    Task task = std::move(due.task);
    std::shared_ptr<TimerSourceImpl> source = due.source.lock();
    if (source) {
      task = source->fireLocked(*this, due.generation, now);
      queue = source->queue();
    }
    lock.unlock();
    if (task) queue->async(std::move(task));
    // Drop our references unlocked: a source's last reference may go here.
    task = nullptr;
    queue.reset();
    source.reset();
    lock.lock();
  }
}

}  // namespace

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) {
  return std::make_shared<QueueImpl>(std::move(label), Runner::pool);
}

std::shared_ptr<SerialQueue> SerialQueue::main() {
  static auto* queue =
      new std::shared_ptr<SerialQueue>(std::make_shared<QueueImpl>("main", Runner::main));
  return *queue;
}

void SerialQueue::setMainExecutor(std::function<void(Task)> executor) {
  MainRunner::shared().setExecutor(std::move(executor));
}

void asyncAfter(const std::shared_ptr<SerialQueue>& queue, std::chrono::nanoseconds delay,
                Task task) {
  if (!queue) fatalError("asyncAfter needs a queue");
  TimerThread::Entry entry;
  entry.deadline = deadlineAfter(Clock::now(), delay);
  entry.queue = queue;
  entry.task = std::move(task);
  auto& timers = TimerThread::shared();
  std::lock_guard lock(timers.mutex);
  timers.add(std::move(entry));
}

bool stopIdleThreads(std::chrono::steady_clock::time_point deadline) {
  // Timers first: a firing would hand the pool new work.
  const bool timers = TimerThread::shared().stopIdle(deadline);
  const bool main = MainRunner::shared().stopIdle(deadline);
  const bool pool = WorkerPool::shared().stopIdle(deadline);
  return timers && main && pool;
}

std::shared_ptr<TimerSource> TimerSource::create(std::shared_ptr<SerialQueue> queue) {
  if (!queue) fatalError("TimerSource::create needs a queue");
  return std::make_shared<TimerSourceImpl>(std::move(queue));
}

}  // namespace pelora::platform
