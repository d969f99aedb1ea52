#include "pelora/platform/dispatch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/captured_log.hpp"
#include "tests/support/waiting.hpp"

namespace pelora::platform {
namespace {

using test::Counter;

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs on `queue` after `delay`: whatever the queue had to do by then has been done.
void settleAfter(const std::shared_ptr<SerialQueue>& queue, std::chrono::milliseconds delay) {
  Counter marker;
  asyncAfter(queue, delay, [&] { marker.add(); });
  ASSERT_TRUE(marker.waitFor(1));
  queue->sync([] {});
}

TEST(SerialQueue, SyncRunsOnCallerAfterEarlierTasks) {
  auto queue = SerialQueue::create("test.sync");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::vector<std::string> log;
  queue->async([&] {
    opened.wait();
    log.push_back("async");
  });
  std::thread::id ranOn;
  std::thread caller([&] {
    queue->sync([&] {
      ranOn = std::this_thread::get_id();
      log.push_back("sync");
    });
  });
  const auto callerId = caller.get_id();
  gate.set_value();
  caller.join();
  EXPECT_EQ(ranOn, callerId);
  EXPECT_EQ(log, (std::vector<std::string>{"async", "sync"}));
  // A value comes back; a sync block on an idle queue sees the caller's stack.
  int local = 41;
  EXPECT_EQ(queue->sync([&] { return ++local; }), 42);
}

TEST(SerialQueue, ConcurrentSyncAndAsyncStayExclusiveAndInOrder) {
  auto queue = SerialQueue::create("test.mixed");
  constexpr int kThreads = 8, kRounds = 2000;
  long counter = 0;                     // guarded by the queue alone
  std::vector<int> last(kThreads, -1);  // per producer, guarded by the queue alone
  int outOfOrder = 0;
  std::atomic<bool> inside{false};
  std::atomic<int> overlaps{0};
  auto bump = [&](int t, int i) {
    if (inside.exchange(true)) ++overlaps;
    ++counter;
    outOfOrder += i <= last[t];
    last[t] = i;
    inside = false;
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        if ((i + t) % 2 == 0 || t == 0) {  // producer 0 only submits async tasks
          queue->async([&, t, i] { bump(t, i); });
        } else {
          queue->sync([&] { bump(t, i); });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(queue->sync([&] { return counter; }), long{kThreads} * kRounds);
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(outOfOrder, 0);
}

TEST(SerialQueue, ExceptionsNeitherKillWorkersNorWedgeTheQueue) {
  auto queue = SerialQueue::create("test.throws");
  {
    test::CapturedLog log;
    queue->async([] { throw std::runtime_error("boom"); });
    queue->async([] { throw 7; });
    bool after = false;
    queue->async([&] { after = true; });
    EXPECT_TRUE(queue->sync([&] { return after; }));
    // Errors, so that a host's handler files them as such.
    EXPECT_TRUE(log.has(LogLevel::error, "test.throws threw: boom"));
    EXPECT_TRUE(log.has(LogLevel::error, "non-standard exception"));
  }

  // A throwing sync block reaches its caller and releases the queue.
  EXPECT_THROW(queue->sync([] { throw std::logic_error("sync"); }), std::logic_error);
  Counter ran;
  for (int i = 0; i < 100; ++i) SerialQueue::create("test.after")->async([&] { ran.add(); });
  queue->async([&] { ran.add(); });
  EXPECT_TRUE(ran.waitFor(101));
}

// Many pool workers block in sync on one queue whose pending async task needs a worker too: the
// pool has to add a thread, or everything stops.
TEST(SerialQueue, WorkersBlockedInSyncDoNotStarveThePool) {
  auto target = SerialQueue::create("test.target");
  constexpr int kWaiters = 24;
  std::vector<std::shared_ptr<SerialQueue>> waiters;
  Counter entered, finished;
  bool pendingRan = false;
  target->sync([&] {
    target->async([&] { pendingRan = true; });
    for (int i = 0; i < kWaiters; ++i) {
      waiters.push_back(SerialQueue::create("test.waiter"));
      waiters.back()->async([&] {
        entered.add();
        target->sync([&] { EXPECT_TRUE(pendingRan); });
        finished.add();
      });
    }
    // Let the workers pile up behind us before the queue is released.
    entered.waitFor(8, 2s);
  });
  EXPECT_TRUE(finished.waitFor(kWaiters, 20s));
}

TEST(MainQueue, HostExecutorRunsDrainsOnTheHostThread) {
  std::mutex mutex;
  std::condition_variable posted;
  std::deque<Task> hostLoop;
  SerialQueue::setMainExecutor([&](Task task) {
    {
      std::lock_guard lock(mutex);
      hostLoop.push_back(std::move(task));
    }
    posted.notify_all();
  });
  auto main = SerialQueue::main();
  std::vector<int> order;
  for (int i = 0; i < 3; ++i) {
    main->async([&, i, self = std::this_thread::get_id()] {
      EXPECT_EQ(std::this_thread::get_id(), self);
      order.push_back(i);
    });
  }
  // Pump the "host loop" on this thread until the three tasks ran.
  const auto deadline = Clock::now() + 10s;
  while (order.size() < 3 && Clock::now() < deadline) {
    std::unique_lock lock(mutex);
    if (!posted.wait_until(lock, deadline, [&] { return !hostLoop.empty(); })) break;
    Task next = std::move(hostLoop.front());
    hostLoop.pop_front();
    lock.unlock();
    next();
  }
  SerialQueue::setMainExecutor({});
  ASSERT_EQ(order, (std::vector<int>{0, 1, 2}));

  // Handed back, the library's own main thread runs it again.
  std::promise<std::thread::id> libraryThread;
  main->async([&] { libraryThread.set_value(std::this_thread::get_id()); });
  auto ran = libraryThread.get_future();
  ASSERT_EQ(ran.wait_for(10s), std::future_status::ready);
  EXPECT_NE(ran.get(), std::this_thread::get_id());
}

TEST(AsyncAfter, FiresNotBeforeItsDelayAndInDeadlineOrder) {
  auto queue = SerialQueue::create("test.after");
  // The timer thread starts with the first request. Start it now, so that starting it cannot
  // stretch the gap between the requests below past the gap between their delays.
  settleAfter(queue, 0ms);
  const auto start = Clock::now();
  std::vector<int> order;  // only touched on `queue`
  Clock::time_point lastAt{};
  Counter done;
  for (int delay : {90, 30, -5}) {
    asyncAfter(queue, std::chrono::milliseconds(delay), [&, delay] {
      order.push_back(delay);
      lastAt = Clock::now();
      done.add();
    });
  }
  ASSERT_TRUE(done.waitFor(3));
  queue->sync([] {});
  EXPECT_EQ(order, (std::vector<int>{-5, 30, 90}));
  EXPECT_GE(lastAt - start, 90ms);
}

TEST(TimerSource, StartsSuspendedThenRepeatsFromStartUntilCancelled) {
  auto queue = SerialQueue::create("test.timer");
  auto timer = TimerSource::create(queue);
  const auto start = Clock::now();
  std::vector<Clock::time_point> fired;
  timer->schedule(30ms, 10ms);
  timer->setHandler([&] {
    EXPECT_TRUE(queue->isCurrent());
    fired.push_back(Clock::now());
    if (fired.size() == 3) timer->cancel();  // on the queue: no firing can be running now
  });
  settleAfter(queue, 40ms);
  EXPECT_TRUE(queue->sync([&] { return fired.empty(); })) << "a new source is suspended";
  timer->resume();
  // Well after the third firing: no fourth one came.
  settleAfter(queue, 150ms);
  const auto times = queue->sync([&] { return fired; });
  ASSERT_EQ(times.size(), 3u);
  EXPECT_GE(times[0] - start, 30ms);
  EXPECT_GE(times[2] - start, 50ms);
}

TEST(TimerSourceDeathTest, OverResumeIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto timer = TimerSource::create(SerialQueue::create("test.over"));
        timer->resume();
        timer->resume();
      },
      "over-resume");
}

TEST(SerialQueueDeathTest, SyncOnTheCurrentQueueIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = SerialQueue::create("test.self");
  EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }), "'test.self' from a task already running");
  auto other = SerialQueue::create("test.other");
  EXPECT_DEATH(queue->sync([&] { other->sync([&] { queue->sync([] {}); }); }), "would deadlock");
}

// exit() while pool tasks, the main queue and timers are busy neither crashes nor hangs.
TEST(DispatchExit, ExitWhileWorkersAndTimersRunIsClean) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        // Leaked on purpose, like the library's own process-lifetime objects.
        static auto* queues = new std::vector<std::shared_ptr<SerialQueue>>;
        static auto* spins = new std::atomic<long>{0};
        for (int i = 0; i < 6; ++i) queues->push_back(SerialQueue::create("exit.busy"));
        queues->push_back(SerialQueue::main());
        for (auto& queue : *queues) {
          SerialQueue* raw = queue.get();
          struct Spin {
            SerialQueue* queue;
            void operator()() const {
              spins->fetch_add(1);
              queue->async(*this);
            }
          };
          raw->async(Spin{raw});
        }
        static auto* timer = new std::shared_ptr<TimerSource>(TimerSource::create(queues->at(0)));
        (*timer)->schedule(0ns, 1ms);
        (*timer)->setHandler([] { spins->fetch_add(1); });
        (*timer)->resume();
        asyncAfter(queues->at(1), 1h, [] {});
        while (spins->load() < 1000) std::this_thread::yield();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

// Producers hammer a few queues with async and sync work, including syncs from tasks onto other
// queues (always towards a higher index, so there is no cycle). Each round must finish.
TEST(DispatchStress, ManyProducersManyRounds) {
  constexpr int kQueues = 4, kProducers = 8, kRounds = 150, kOps = 20;
  std::vector<std::shared_ptr<SerialQueue>> queues;
  std::vector<long> counts(kQueues, 0);  // counts[i] only touched on queues[i]
  for (int i = 0; i < kQueues; ++i) queues.push_back(SerialQueue::create("stress"));
  std::atomic<long> expected[kQueues] = {};
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p, round] {
        for (int op = 0; op < kOps; ++op) {
          const int i = (p + op + round) % kQueues;
          expected[i].fetch_add(1);
          if (op % 3 == 0) {
            queues[i]->sync([&] { ++counts[i]; });
          } else if (op % 3 == 1 || i == kQueues - 1) {
            queues[i]->async([&, i] { ++counts[i]; });
          } else {
            expected[i + 1].fetch_add(1);
            queues[i]->async([&, i] {
              ++counts[i];
              queues[i + 1]->sync([&] { ++counts[i + 1]; });
            });
          }
        }
      });
    }
    for (auto& producer : producers) producer.join();
    for (int i = 0; i < kQueues; ++i) queues[i]->sync([] {});
  }
  // Syncs onto queue i+1 from tasks on queue i may still be queued behind queue i's own work.
  for (int i = 0; i < kQueues; ++i) queues[i]->sync([] {});
  for (int i = 0; i < kQueues; ++i) {
    EXPECT_EQ(queues[i]->sync([&] { return counts[i]; }), expected[i].load()) << i;
  }
}

}  // namespace
}  // namespace pelora::platform
