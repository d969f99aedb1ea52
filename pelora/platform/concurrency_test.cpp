#include "pelora/platform/concurrency.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pelora/platform/logging.hpp"

#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using test::Counter;

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using platform::SerialQueue;

// Sets the module-wide debug switch for one test and restores it.
class DebugLogs {
 public:
  explicit DebugLogs(bool on) : before_(platform::log::debugEnabled()) {
    platform::log::setDebugEnabled(on);
  }
  ~DebugLogs() { platform::log::setDebugEnabled(before_); }

 private:
  bool before_;
};

TEST(ConcurrencyQueue, FirstInFirstOutAndPrintsItsSizeOnlyInDebug) {
  Queue<int> queue;
  {
    DebugLogs off(false);
    testing::internal::CaptureStdout();
    queue.enqueue(1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
  DebugLogs on(true);
  testing::internal::CaptureStdout();
  queue.enqueue(2);
  EXPECT_EQ(queue.peek(), 1);
  EXPECT_EQ(queue.description(), "[1, 2]");
  EXPECT_EQ(queue.dequeue(), 1);
  EXPECT_EQ(queue.dequeue(), 2);
  EXPECT_EQ(queue.dequeue(), std::nullopt);  // empty: silent
  EXPECT_TRUE(queue.isEmpty());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "**** Queue Size : 2\n**** Queue Size : 1\n**** Queue Size : 0\n");
}

// Increments from many threads are never lost inside modify().
TEST(ConcurrencyAtomic, ModifyUnderOneLock) {
  Atomic<long> count;
  Atomic<std::vector<int>> items;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) count.modify([](long& n) { ++n; });
      items.modify([t](std::vector<int>& list) { list.push_back(t); });
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(count.get(), 8 * 5000);
  EXPECT_EQ(items.get().size(), 8u);
}

TEST(ConcurrencyQueueTimer, FiresAfterEachIntervalOnItsQueueAndResumesOnce) {
  auto queue = SerialQueue::create("test.queuetimer");
  std::vector<Clock::time_point> fired;
  Counter count;
  const auto start = Clock::now();
  auto timer = std::make_unique<QueueTimer>(0.04, queue, [&] {
    EXPECT_TRUE(queue->isCurrent());
    fired.push_back(Clock::now());
    count.add();
  });
  EXPECT_EQ(timer->interval(), 0.04);
  // Resuming the source again would be fatal (over-resume): the timer resumes it once only.
  timer->resume();
  timer->resume();
  ASSERT_TRUE(count.waitFor(2));
  timer.reset();
  const auto times = queue->sync([&] { return fired; });
  EXPECT_GE(times[0] - start, 40ms);
  EXPECT_GE(times[1] - start, 80ms);
}

TEST(ConcurrencyQueueTimerStress, CreateAndDestroyFromManyThreads) {
  auto queue = SerialQueue::create("test.churn");
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        auto timer = std::make_unique<QueueTimer>(0.0005, queue, [&] { ++calls; });
        if (i % 3 == 0) timer->resume();
        if (i % 10 == 0) queue->sync([] {});
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue->sync([] {});
  const int settled = calls.load();
  Counter marker;
  platform::asyncAfter(queue, 20ms, [&] { marker.add(); });
  ASSERT_TRUE(marker.waitFor(1));
  EXPECT_EQ(calls.load(), settled) << "a destroyed timer fired";
}

// One block at a time, on the caller's thread, whoever comes first; entering again from inside
// is a programming error caught before it deadlocks.
TEST(ConcurrencyExclusiveRunner, OneBlockAtATimeOnTheCallersThread) {
  ExclusiveRunner runner("test.runner");
  std::atomic<int> inside{0};
  int total = 0;  // guarded by the runner alone
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const auto caller = std::this_thread::get_id();
        runner.sync([&] {
          EXPECT_EQ(inside.fetch_add(1), 0);
          EXPECT_EQ(std::this_thread::get_id(), caller);
          EXPECT_TRUE(runner.isCurrent());
          ++total;
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(total, 8000);
  EXPECT_FALSE(runner.isCurrent());
  EXPECT_EQ(runner.sync([] { return 7; }), 7);
}

TEST(ConcurrencyExclusiveRunnerDeathTest, EnteringAgainFromInsideIsFatal) {
  ExclusiveRunner runner("test.runner");
  EXPECT_DEATH(runner.sync([&] { runner.sync([] {}); }), "sync on 'test.runner' from a block");
}

}  // namespace
}  // namespace pelora
