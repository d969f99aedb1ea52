#include "pelora/client/analytics.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "pelora/core/service_hosts.hpp"
#include "pelora/delivery/pelora_destination.hpp"
#include "pelora/delivery/pelora_monitor_event.hpp"
#include "pelora/platform/app_lifecycle.hpp"
#include "pelora/state/storage.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/small_stack.hpp"
#include "tests/support/temp_directory.hpp"

#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using test::eventually;

using namespace std::chrono_literals;

// Keeps every event the timeline hands to the destination stage.
class CollectingDestination : public DestinationPlugin {
 public:
  std::string key() const override { return "Collector"; }
  std::optional<TrackEvent> execute(std::optional<TrackEvent> event) override {
    std::lock_guard lock(mutex);
    if (event) tracks.push_back(*event);
    return event;
  }
  std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) override {
    std::lock_guard lock(mutex);
    if (event) monitors.push_back(*event);
    return event;
  }
  void update(const Settings&, UpdateType type) override {
    std::lock_guard lock(mutex);
    updates.push_back(type);
  }
  void reset() override { ++resets; }
  void flush() override { ++flushes; }
  std::mutex mutex;
  std::vector<TrackEvent> tracks;
  std::vector<MonitorEvent> monitors;
  std::vector<UpdateType> updates;
  std::atomic<int> resets{0};
  std::atomic<int> flushes{0};
};

class AnalyticsTest : public ::testing::Test {
 protected:
  std::weak_ptr<PeloraAnalytics> lastClient;
  std::shared_ptr<PeloraAnalytics> makeClient() {
    auto configuration = std::make_shared<Configuration>("client-key", std::nullopt, false);
    configuration->paths(platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
    // The built-in destinations send to the tracking host: keep them on the local server.
    configuration->autoAddPeloraDestination(autoAdd)
        .connectTo({server.connectTo(productionTrackingHost)})
        .caBundle(server.certificates().caFile);
    auto client = PeloraAnalytics::create(configuration);
    collector = std::make_shared<CollectingDestination>();
    if (addCollector) client->add(collector);
    lastClient = client;
    return client;
  }
  // Whether a batch file under the client's documents holds `expected`, once what the last client
  // recorded is written out.
  bool batchHas(const std::string& expected) const {
    if (auto client = lastClient.lock()) client->storage()->syncEvents();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path() / "docs")) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path());
      const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      if (text.find(expected) != std::string::npos) return true;
    }
    return false;
  }
  test::TempDirectory dir;
  test::TestHttpsServer server;
  bool autoAdd = true;
  bool addCollector = true;  // a plugin of the host's, which reads the events it gets
  std::shared_ptr<CollectingDestination> collector;
};

TEST_F(AnalyticsTest, EventsAreCompletedAndUnconvertiblePropertiesDropped) {
  PeloraAnalytics::setDebugLogsEnabled(false);
  ::testing::internal::CaptureStdout();
  auto client = makeClient();
  struct Opaque {};
  client->trackBash("First", Dictionary{{"n", 1}});
  client->trackBash("Second", Dictionary{{"ok", 1}, {"bad", Opaque{}}});
  std::string printed = ::testing::internal::GetCapturedStdout();
  // Printed whatever the debug switch says.
  EXPECT_NE(printed.find("Warning: Pelora SDK need peloraAppPushID to enable feature Pelora "
                         "Notification"),
            std::string::npos);
  EXPECT_NE(printed.find("nonJSONType"), std::string::npos) << printed;

  ASSERT_EQ(collector->tracks.size(), 2u);
  const TrackEvent& first = collector->tracks[0];
  const TrackEvent& second = collector->tracks[1];
  EXPECT_EQ(first.type, "track");
  EXPECT_EQ(first.anonymousId, client->anonymousId());
  EXPECT_FALSE(client->anonymousId().empty());
  ASSERT_TRUE(first.messageId && first.timestamp);
  EXPECT_NE(first.messageId, second.messageId);
  EXPECT_LE(*first.timestamp, *second.timestamp);
  EXPECT_EQ(first.integrations, JSON(JSON::Map{}));
  EXPECT_EQ(first.properties->toString(), R"({"n":1})");
  EXPECT_FALSE(second.properties);
}

// Records properties at, one past and far past the depth a batch can hold, then reads the batch.
void recordDeepPropertiesAndReadTheBatch(PeloraAnalytics& client) {
  // `levels` dictionaries deep.
  auto nested = [](int levels) {
    Dictionary d{{"leaf", 1}};
    for (int i = 1; i < levels; ++i) {
      Dictionary outer;
      outer.emplace("d", std::move(d));
      d = std::move(outer);
    }
    return d;
  };
  // Built here: copying a host value that deep takes the host's own stack.
  const std::optional<Dictionary> deepest = nested(maxEventValueDepth);
  const std::optional<Dictionary> oneTooDeep = nested(maxEventValueDepth + 1);
  const std::optional<Dictionary> farTooDeep = nested(20'000);
  const std::optional<std::vector<JSON>> typed(std::in_place, std::vector<JSON>{JSON(*oneTooDeep)});
  ::testing::internal::CaptureStdout();
  test::runOnSmallStack([&] {
    client.trackBash("Deepest", deepest);
    client.trackBash("One too deep", oneTooDeep);
    client.trackBash("Far too deep", farTooDeep);
    client.trackBash("Typed", typed);
  });
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("nested deeper than"), std::string::npos) << printed;

  const auto files = client.pendingUploads().value();
  ASSERT_EQ(files.size(), 1u);
  std::ifstream in(files[0]);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const JSON batch = JSON::parse(text);  // throws if our own reader refused it
  const auto events = batch["batch"]->listPointer();
  ASSERT_TRUE(events);
  ASSERT_EQ(events->size(), 4u);
  EXPECT_TRUE((*events)[0]["properties"]);
  for (std::size_t i = 1; i < 4; ++i) EXPECT_FALSE((*events)[i]["properties"]) << i;
}

// With a plugin of the host's that reads events, properties are built as JSON first.
TEST_F(AnalyticsTest, PropertiesTooDeepForABatchAreDroppedAndEveryBatchStaysReadable) {
  auto client = makeClient();
  recordDeepPropertiesAndReadTheBatch(*client);
}

// With only the built-in plugins they are written straight to text: the same rules hold, and a
// plugin that reads events, once added, gets them built.
TEST_F(AnalyticsTest, WithOnlyBuiltInPluginsPropertiesGoStraightToText) {
  addCollector = false;
  auto client = makeClient();
  recordDeepPropertiesAndReadTheBatch(*client);

  // The batch holds the very text that building the properties as JSON gives.
  const Dictionary mixed{{"price", Decimal::parse("129.950").value()},
                         {"name", std::string("Tự \"động\"")},
                         {"tags", Array{std::string("a"), 7, true, Null{}}},
                         {"ratio", 0.1},
                         {"nested", Dictionary{{"k", std::int64_t{-3}}}}};
  client->trackBash("Mixed", mixed);
  // JSON text goes in as it reads (numbers exact, keys in order); other kinds are left out.
  client->trackBash("Text", JSONText::parse(R"({"b": 1.50, "a": [true, "x"], "b": 2.0})"));
  client->trackBash("Not an object", JSONText::parse("[1]"));
  EXPECT_TRUE(batchHas("\"event\":\"Mixed\",\"properties\":" + JSON(mixed).toString() + "}"));
  EXPECT_TRUE(batchHas(R"("event":"Text","properties":{"a":[true,"x"],"b":2}})"));
  EXPECT_TRUE(batchHas(R"("event":"Not an object"})"));

  auto reader = std::make_shared<CollectingDestination>();
  client->add(reader);
  client->trackBash("Read", Dictionary{{"price", Decimal::parse("9.90").value()}});
  client->trackBash("Read text", JSONText::parse(R"({"price": 9.90})"));
  std::lock_guard lock(reader->mutex);
  ASSERT_EQ(reader->tracks.size(), 2u);
  for (const auto& track : reader->tracks) {
    EXPECT_EQ(track.properties, JSON(JSON::Map{{"price", JSON(Decimal::parse("9.90").value())}}));
  }
}

// The client remembers that no plugin reads values until a plugin comes or goes, also inside a
// destination's own timeline.
TEST_F(AnalyticsTest, APluginAddedInsideADestinationSeesTheNextEventsValues) {
  addCollector = false;
  auto client = makeClient();
  struct Reader : EventPlugin {
    PluginType type() const override { return PluginType::before; }
    std::optional<TrackEvent> track(TrackEvent event) override {
      seen.push_back(event.properties);
      return event;
    }
    std::vector<std::optional<JSON>> seen;
  };
  client->trackBash("Unread", Dictionary{{"n", 1}});  // no plugin reads: straight to text
  auto destination = client->find<PeloraDestination>();
  ASSERT_TRUE(destination);
  auto reader = std::make_shared<Reader>();
  destination->add(reader);
  client->trackBash("Read", Dictionary{{"n", 2}});
  ASSERT_EQ(reader->seen.size(), 1u);
  EXPECT_EQ(reader->seen[0], JSON(JSON::Map{{"n", JSON(2)}}));
  destination->remove(reader);
  client->trackBash("Unread again", Dictionary{{"n", 3}});
  EXPECT_EQ(reader->seen.size(), 1u);
}

// The upload destination runs on the event where it lies: its own plugins still change and drop
// what it stores and see what it stored, and an event that turns it off is not stored.
TEST_F(AnalyticsTest, TheUploadDestinationsOwnPluginsShapeWhatItStores) {
  addCollector = false;
  auto client = makeClient();
  struct Renamer : EventPlugin {
    PluginType type() const override { return PluginType::before; }
    std::optional<TrackEvent> track(TrackEvent event) override {
      if (event.event == "Dropped") return std::nullopt;
      event.event += " renamed";
      return event;
    }
  };
  struct Watcher : EventPlugin {
    explicit Watcher(PluginType stage) : stage(stage) {}
    PluginType type() const override { return stage; }
    std::optional<TrackEvent> track(TrackEvent event) override {
      if (event.event == "Switched off") {
        event.integrations = JSON(JSON::Map{{"Pelora.io", JSON(false)}});
      }
      seen.push_back(event.event);
      return event;
    }
    PluginType stage;
    std::vector<std::string> seen;
  };
  auto destination = client->find<PeloraDestination>();
  ASSERT_TRUE(destination);
  auto switcher = std::make_shared<Watcher>(PluginType::before);
  client->add(switcher);
  destination->add(std::make_shared<Renamer>());
  auto after = std::make_shared<Watcher>(PluginType::after);
  destination->add(after);

  client->trackBash("Kept", Dictionary{{"n", 1}});
  client->trackBash("Dropped", Dictionary{{"n", 2}});
  client->trackBash("Switched off", Dictionary{{"n", 3}});
  EXPECT_TRUE(batchHas(R"("event":"Kept renamed","properties":{"n":1}})"));
  EXPECT_FALSE(batchHas("Dropped"));
  EXPECT_FALSE(batchHas("Switched off"));
  EXPECT_EQ(after->seen, std::vector<std::string>{"Kept renamed"});
  EXPECT_EQ(switcher->seen, (std::vector<std::string>{"Kept", "Dropped", "Switched off"}));
  EXPECT_EQ(destination->eventCount(), 1);
}

TEST_F(AnalyticsTest, MonitorEventsCarryDeviceIdsAndPlatform) {
  auto client = makeClient();
  PeloraAnalytics::setPeloraUserId("DEVICE-1");
  struct Opaque {};
  ::testing::internal::CaptureStdout();
  client->trackEvent(Dictionary{{"email", std::string("a@b")}}, "login",
                     Dictionary{{"platform", std::string("web")}, {"step", 2}},
                     std::vector<Dictionary>{{{"name", std::string("Ann")}}, {{"bad", Opaque{}}}});
  ::testing::internal::GetCapturedStdout();
  ASSERT_EQ(collector->monitors.size(), 1u);
  const MonitorEvent& event = collector->monitors[0];
  EXPECT_EQ(event.eventName, "login");
  EXPECT_EQ(event.identityId.toString(), R"({"email":"a@b","pelora_user_id":"DEVICE-1"})");
  EXPECT_EQ(event.eventData.toString(), R"({"platform":"iOS","step":2})");
  ASSERT_TRUE(event.profile);
  ASSERT_EQ(event.profile->size(), 1u);
  EXPECT_EQ((*event.profile)[0].toString(), R"({"name":"Ann","pelora_user_id":"DEVICE-1"})");

  PeloraAnalytics::setPeloraUserId(std::string());
  client->trackEvent(Dictionary{}, "e", Dictionary{});
  EXPECT_EQ(collector->monitors[1].identityId.toString(), "{}");
  EXPECT_FALSE(collector->monitors[1].profile);
}

TEST_F(AnalyticsTest, IdentitySurvivesRestartAndResetSurvivesToo) {
  std::string firstId;
  {
    auto client = makeClient();
    firstId = client->anonymousId();
  }
  auto restarted = makeClient();
  EXPECT_EQ(restarted->anonymousId(), firstId);
  restarted->reset();
  const std::string afterReset = restarted->anonymousId();
  EXPECT_NE(afterReset, firstId);
  EXPECT_FALSE(restarted->userId());
  EXPECT_FALSE(restarted->traits());
  EXPECT_EQ(collector->resets.load(), 1);
  auto again = makeClient();
  EXPECT_EQ(again->anonymousId(), afterReset);
}

TEST_F(AnalyticsTest, SettingsAreCheckedAtStartAndOnReturnFromBackground) {
  auto client = makeClient();
  // Added after start: gets the held settings as initial.
  ASSERT_EQ(collector->updates, (std::vector<UpdateType>{UpdateType::initial}));
  EXPECT_TRUE(client->settings()->hasIntegrationSettings("Pelora.io"));

  auto& lifecycle = platform::AppLifecycle::shared();
  lifecycle.didBecomeActive();
  lifecycle.willEnterForeground();  // not from the background: no check
  lifecycle.didEnterBackground();
  lifecycle.willEnterForeground();
  lifecycle.didBecomeActive();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(collector->mutex);
    return collector->updates.size() >= 2;
  }));
  std::lock_guard lock(collector->mutex);
  EXPECT_EQ(collector->updates,
            (std::vector<UpdateType>{UpdateType::initial, UpdateType::refresh}));
}

TEST_F(AnalyticsTest, RecordingFromManyThreadsLosesNothing) {
  auto client = makeClient();
  constexpr int threads = 4;
  constexpr int perThread = 200;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < perThread; ++i) {
        client->trackBash("e", Dictionary{{"t", t}, {"i", i}});
        if (i % 50 == 0) client->trackEvent(Dictionary{{"t", t}}, "m", Dictionary{});
      }
    });
  }
  for (auto& worker : workers) worker.join();
  std::lock_guard lock(collector->mutex);
  EXPECT_EQ(collector->tracks.size(), static_cast<std::size_t>(threads * perThread));
  EXPECT_EQ(collector->monitors.size(), static_cast<std::size_t>(threads * 4));
}

// Plugins come and go while other threads record, flush, reset, read identity, log and re-check
// the settings (the application returning to the foreground). Every walk over a stage must keep
// its own snapshot of the plugin list alive while it runs.
TEST_F(AnalyticsTest, ConcurrentPluginChangesWhileEveryOtherCallRuns) {
  auto client = makeClient();
  PeloraAnalytics::setDebugLogsEnabled(true);  // log() then looks for a log plugin
  ::testing::internal::CaptureStdout();
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int round = 0; round < 300; ++round) {
      auto destination = std::make_shared<CollectingDestination>();
      auto inner = std::make_shared<CollectingDestination>();
      destination->add(inner);
      client->add(destination);
      auto logger = client->add(std::make_shared<PeloraLog>(LogFilterKind::debug, PluginType::after,
                                                            PeloraLog::TargetTable{}));
      client->remove(destination);
      client->remove(logger);
    }
    done = true;
  });
  auto untilDone = [&](auto body) {
    threads.emplace_back([&, body] {
      while (!done) body();
    });
  };
  untilDone([&] { client->trackBash("During", Dictionary{{"n", 1}}); });
  untilDone([&] {
    client->flush();
    client->logFlush();
    client->log("line", LogFilterKind::debug, "test", __LINE__);
    (void)client->find<PeloraLog>();
    (void)client->find("Collector");
  });
  untilDone([&] {
    client->reset();
    (void)client->anonymousId();
    client->apply([](const std::shared_ptr<Plugin>& plugin) { (void)plugin->type(); });
  });
  // Each return to the foreground queues a settings re-check (which writes the suite) on the main
  // queue: a few dozen keep it busy for the whole test without a backlog for the next one.
  threads.emplace_back([&] {
    auto& lifecycle = platform::AppLifecycle::shared();
    for (int i = 0; i < 40 && !done; ++i) {
      lifecycle.didEnterBackground();
      lifecycle.willEnterForeground();
      lifecycle.didBecomeActive();
      platform::SerialQueue::main()->sync([] {});
    }
  });
  for (auto& thread : threads) thread.join();
  (void)::testing::internal::GetCapturedStdout();
  PeloraAnalytics::setDebugLogsEnabled(false);
  EXPECT_TRUE(client->find("Collector") == collector);  // only the fixture's is left
}

TEST_F(AnalyticsTest, BuiltInDestinationsAreAddedAndTheirWorkCountsAsUnsent) {
  auto client = makeClient();
  EXPECT_FALSE(client->hasUnsentEvents());
  EXPECT_EQ(client->pendingUploads(), std::vector<std::filesystem::path>{});
  auto destination = client->find<PeloraDestination>();
  ASSERT_TRUE(destination);
  EXPECT_TRUE(client->find<PeloraMonitorEvent>());

  client->trackBash("Counted");
  EXPECT_EQ(destination->eventCount(), 1);
  EXPECT_TRUE(client->hasUnsentEvents());  // counted but not yet in a finished file
  client->flush();
  EXPECT_EQ(collector->flushes.load(), 1);  // every event plugin is told
  EXPECT_TRUE(eventually([&] { return !client->hasUnsentEvents(); }));
}

TEST_F(AnalyticsTest, WithoutTheUploadDestinationOnlyFinishedFilesCount) {
  autoAdd = false;
  auto client = makeClient();
  EXPECT_FALSE(client->find<PeloraDestination>());
  client->trackBash("Not stored");
  EXPECT_FALSE(client->hasUnsentEvents());
  // A batch left by an earlier run is still waiting.
  std::ofstream(client->storage()->eventsDirectory() / "0-pelora-events.temp") << "{}";
  EXPECT_TRUE(client->hasUnsentEvents());
}

}  // namespace
}  // namespace pelora
