#include "pelora/client/startup_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "pelora/client/analytics.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/state/system.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/temp_directory.hpp"

#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using test::eventually;

using namespace std::chrono_literals;

// Records the names of the events that reach the destination stage, in order, and the message
// ids of the track events.
class Recorder : public DestinationPlugin {
 public:
  std::string key() const override { return "Recorder"; }
  std::optional<TrackEvent> execute(std::optional<TrackEvent> event) override {
    std::lock_guard lock(mutex);
    if (event) names.push_back(event->event);
    if (event) ids.push_back(event->messageId.value_or(""));
    return event;
  }
  std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) override {
    std::lock_guard lock(mutex);
    if (event) names.push_back("monitor:" + event->eventName);
    return event;
  }
  std::vector<std::string> seen() {
    std::lock_guard lock(mutex);
    return names;
  }
  std::mutex mutex;
  std::vector<std::string> names, ids;
};

// Named for the client so that the thread sanitizer run picks these tests up too.
class AnalyticsStartupQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto configuration = std::make_shared<Configuration>("startup-key", std::nullopt, false);
    configuration->paths(platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
    configuration->autoAddPeloraDestination(false)
        .connectTo({server.connectTo(productionTrackingHost)})
        .caBundle(server.certificates().caFile);
    client = PeloraAnalytics::create(configuration);
    recorder = std::make_shared<Recorder>();
    client->add(recorder);
    queue = std::make_shared<StartupQueue>();
    client->add(queue);
  }
  void setRunning(bool running) { client->store()->dispatch(System::ToggleRunningAction{running}); }

  test::TempDirectory dir;
  test::TestHttpsServer server;
  std::shared_ptr<PeloraAnalytics> client;
  std::shared_ptr<Recorder> recorder;
  std::shared_ptr<StartupQueue> queue;
};

TEST_F(AnalyticsStartupQueueTest, AddedToARunningClientItHoldsUntilTheNextChange) {
  ASSERT_TRUE(client->store()->currentState<System>()->running);
  EXPECT_FALSE(queue->running());  // the current state is not delivered
  client->trackBash("Held");
  EXPECT_TRUE(recorder->seen().empty());
  EXPECT_EQ(queue->heldCount(), 1u);

  setRunning(false);  // a change to holding keeps holding
  client->trackBash("Held too");
  EXPECT_EQ(queue->heldCount(), 2u);

  setRunning(true);
  ASSERT_TRUE(eventually([&] { return recorder->seen().size() == 2; }));
  EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"Held", "Held too"}));
  EXPECT_TRUE(queue->running());
  EXPECT_EQ(queue->heldCount(), 0u);

  client->trackBash("Passing");
  EXPECT_EQ(recorder->seen().back(), "Passing");
}

TEST_F(AnalyticsStartupQueueTest, KeepsTheNewestThousandInOrderAcrossBothEventKinds) {
  client->trackEvent(Dictionary{}, "first-dropped", Dictionary{});
  for (int i = 1; i <= 999; ++i) client->trackBash("E" + std::to_string(i));
  client->trackEvent(Dictionary{}, "last", Dictionary{});
  EXPECT_EQ(queue->heldCount(), 1000u);
  setRunning(true);
  ASSERT_TRUE(eventually([&] { return recorder->seen().size() == 1000; }));
  auto seen = recorder->seen();
  EXPECT_EQ(seen.front(), "E1");
  EXPECT_EQ(seen[998], "E999");
  EXPECT_EQ(seen.back(), "monitor:last");
  EXPECT_EQ(queue->heldCount(), 0u);
}

TEST_F(AnalyticsStartupQueueTest, ReplayDoesNotCompleteEventsAgain) {
  TrackEvent event("Stamped", std::nullopt);
  event.messageId = "MESSAGE-1";
  event.timestamp = "2020-01-01T00:00:00.000Z";
  (void)client->timeline()->process(std::optional<TrackEvent>(event));
  setRunning(true);
  ASSERT_TRUE(eventually([&] { return recorder->seen().size() == 1; }));
  std::lock_guard lock(recorder->mutex);
  EXPECT_EQ(recorder->ids, std::vector<std::string>{"MESSAGE-1"});
}

// An event that looked while the queue was holding, and was held only after running began and
// its replay was over, would wait for a replay that never comes. Recording runs on while the
// running flag goes back and forth; whenever it is on and its replay is done, nothing is held.
TEST_F(AnalyticsStartupQueueTest, NoEventIsLeftBehindWhenRunningBeginsWhileOneIsBeingHeld) {
  std::atomic<bool> stop{false};
  std::atomic<int> recorded{0};
  std::thread recording([&] {
    while (!stop.load()) {
      client->trackBash("E");
      ++recorded;
    }
  });
  int stranded = 0;
  for (int toggle = 0; toggle < 1500 && stranded == 0; ++toggle) {
    setRunning(false);
    setRunning(true);
    // The queue hears of the change on the main queue, where it also replays.
    platform::SerialQueue::main()->sync([] {});
    if (queue->running() && queue->heldCount() > 0) ++stranded;
  }
  stop = true;
  recording.join();
  EXPECT_EQ(stranded, 0) << "an event was held after the replay, with nothing to replay it";
  EXPECT_GT(recorded.load(), 0);
}

TEST_F(AnalyticsStartupQueueTest, WaitUntilStartedWaitsForTheRunningFlag) {
  std::atomic<bool> returned{false};
  std::atomic<bool> runningOnReturn{false};
  std::thread waiter([&] {
    client->waitUntilStarted();
    runningOnReturn = queue->running();
    returned = true;
  });
  EXPECT_FALSE(returned.load());
  setRunning(true);
  ASSERT_TRUE(eventually([&] { return returned.load(); }));
  waiter.join();
  EXPECT_TRUE(runningOnReturn.load());
}

}  // namespace
}  // namespace pelora
