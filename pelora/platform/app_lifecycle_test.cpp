#include "pelora/platform/app_lifecycle.hpp"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "pelora/platform/dispatch.hpp"

namespace pelora::platform {
namespace {

using State = AppLifecycle::State;

// Everything queued on the main queue before this call has run when it returns.
void drainMainQueue() {
  SerialQueue::main()->sync([] {});
}

// Records the deliveries an observer receives, and on which queue.
struct Recorder {
  std::mutex mutex;
  std::vector<State> states;
  bool allOnMainQueue = true;

  std::function<void(State)> observer() {
    return [this](State state) {
      std::lock_guard lock(mutex);
      states.push_back(state);
      allOnMainQueue = allOnMainQueue && SerialQueue::main()->isCurrent();
    };
  }
  std::vector<State> received() {
    std::lock_guard lock(mutex);
    return states;
  }
};

TEST(AppLifecycle, ObserversGetTheStateAtNotificationOnTheMainQueue) {
  AppLifecycle app;
  Recorder first;
  Recorder second;
  app.addWillEnterForegroundObserver(first.observer());
  app.addWillEnterForegroundObserver(second.observer());

  // The host marks itself active before the main queue gets round to the observers.
  SerialQueue::main()->sync([&] {
    app.didEnterBackground();
    app.willEnterForeground();
    app.didBecomeActive();
    EXPECT_TRUE(first.received().empty()) << "delivered synchronously";
  });
  app.willEnterForeground();  // from active this time
  drainMainQueue();

  EXPECT_EQ(first.received(), (std::vector{State::background, State::active}));
  EXPECT_EQ(second.received(), (std::vector{State::background, State::active}));
  EXPECT_TRUE(first.allOnMainQueue);
  EXPECT_TRUE(second.allOnMainQueue);
}

TEST(AppLifecycle, RemovedObserversAreSkippedEvenWhenAlreadyQueued) {
  AppLifecycle app;
  Recorder kept;
  Recorder removed;
  Recorder removedLate;
  app.addWillEnterForegroundObserver(kept.observer());
  const auto token = app.addWillEnterForegroundObserver(removed.observer());
  const auto lateToken = app.addWillEnterForegroundObserver(removedLate.observer());
  app.removeObserver(token);
  app.removeObserver(token);  // twice is harmless
  SerialQueue::main()->sync([&] {
    app.willEnterForeground();
    app.removeObserver(lateToken);  // its delivery is queued behind this block
  });
  drainMainQueue();
  EXPECT_EQ(kept.received().size(), 1u);
  EXPECT_TRUE(removed.received().empty());
  EXPECT_TRUE(removedLate.received().empty());
}

TEST(AppLifecycle, DeliveriesOutliveTheirInstance) {
  Recorder recorder;
  SerialQueue::main()->sync([&] {
    AppLifecycle app;
    app.addWillEnterForegroundObserver(recorder.observer());
    app.willEnterForeground();
  });  // destroyed with its delivery still queued
  drainMainQueue();
  EXPECT_TRUE(recorder.received().empty());
}

TEST(AppLifecycle, HostCallsFromManyThreads) {
  AppLifecycle app;
  Recorder recorder;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        const auto token = app.addWillEnterForegroundObserver([](State) {});
        app.didEnterBackground();
        app.willEnterForeground();
        app.didBecomeActive();
        app.removeObserver(token);
      }
    });
  }
  app.addWillEnterForegroundObserver(recorder.observer());
  for (auto& thread : threads) thread.join();
  drainMainQueue();
  EXPECT_LE(recorder.received().size(), 400u);
  EXPECT_TRUE(recorder.allOnMainQueue);
}

}  // namespace
}  // namespace pelora::platform
