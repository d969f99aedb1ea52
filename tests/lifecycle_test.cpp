// What a host embedding the client relies on beyond recording: flush and shutdown with deadlines
// against the local collector (in-process), the threads the client leaves behind, the host's log
// handler, and identify.
#include <dirent.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "tests/support/captured_log.hpp"
#include "tests/support/iam.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using test::CapturedLog;
using test::TempDirectory;

std::shared_ptr<Configuration> configurationFor(const std::filesystem::path& data,
                                                const Collector& collector,
                                                bool enableIAM = false) {
  auto configuration = std::make_shared<Configuration>("lifecycle-key", std::nullopt, enableIAM);
  configuration->flushAt(1'000'000)
      .flushInterval(3600)
      .paths({data / "data", data / "config"})
      .connectTo(
          {collector.connectTo(productionTrackingHost), collector.connectTo(test::iamHost())})
      .caBundle(collector.certificates().caFile);
  return configuration;
}

// The names of the library's threads in this process ("pelora-queue", "pelora-http", ...); the
// in-process collector's threads are not among them.
std::vector<std::string> libraryThreads() {
  std::vector<std::string> names;
  if (DIR* tasks = ::opendir("/proc/self/task")) {
    while (const dirent* entry = ::readdir(tasks)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
      std::string name;
      std::getline(comm, name);
      if (name.starts_with("pelora-")) names.push_back(name);
    }
    ::closedir(tasks);
  }
  return names;
}

TEST(Lifecycle, FlushWithADeadlineSendsARefusedBatchAgainAndWaitsForThePost) {
  TempDirectory data;
  Collector collector;
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
  analytics->trackEvent(Dictionary{{"email", std::string("a@b.c")}}, "login", Dictionary{});
  EXPECT_TRUE(analytics->flush(20s));
  EXPECT_EQ(collector.counts().trackingEvents, 1u) << "flush waits for the post";

  collector.failNext(503, 1);
  for (int i = 0; i < 7; ++i) analytics->trackBash("Step", Dictionary{{"seq", i}});
  EXPECT_TRUE(analytics->flush(20s));
  EXPECT_FALSE(analytics->hasUnsentEvents());
  EXPECT_EQ(collector.counts().distinctEvents, 7u);
  EXPECT_EQ(collector.counts().failed, 1u);
}

TEST(Lifecycle, FlushGivesUpAtTheDeadlineAndKeepsTheBatch) {
  TempDirectory data;
  Collector collector;
  collector.failNext(500, 1'000'000);
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
  analytics->trackBash("Kept");
  EXPECT_FALSE(analytics->flush(PeloraAnalytics::Clock::now() + 600ms));
  EXPECT_TRUE(test::eventually([&] { return collector.counts().failed >= 2; }))
      << "a refused batch is sent again within the deadline";
  EXPECT_TRUE(analytics->hasUnsentEvents());
  analytics->shutdown(1s);
}

TEST(Lifecycle, ShutdownDeliversReleasesTheClientAndEndsItsThreads) {
  test::ManualHeadless screen;
  TempDirectory data;
  Collector collector;
  collector.holdPulls(20s);  // an in-app message pull stays open until shutdown stops it
  ASSERT_EQ(libraryThreads().size(), 0u);

  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector, true));
  std::weak_ptr<PeloraAnalytics> weak = analytics;
  auto destination = analytics->find<PeloraDestination>();
  ASSERT_TRUE(destination);
  for (int i = 0; i < 5; ++i) analytics->trackBash("Step", Dictionary{{"seq", i}});
  ASSERT_TRUE(collector.waitFor([](const auto& counts) { return counts.pulls >= 1; }, 10s));
  EXPECT_GE(libraryThreads().size(), 2u) << "at least the pull's and the uploads' HTTP workers";

  EXPECT_TRUE(analytics->shutdown(20s));
  EXPECT_EQ(collector.counts().distinctEvents, 5u);
  EXPECT_FALSE(IAMManager::shared()->isPolling());
  EXPECT_EQ(destination->analytics(), nullptr) << "plugins let go of the client";
  EXPECT_TRUE(analytics->shutdown(1s)) << "a second call gives the first one's result";

  {
    CapturedLog log;
    analytics->trackBash("Too late");
    EXPECT_TRUE(log.has(LogLevel::warning, "trackBash after shutdown(); the event is dropped"));
  }
  EXPECT_FALSE(analytics->hasUnsentEvents()) << "nothing was stored after shutdown";

  analytics.reset();
  EXPECT_TRUE(weak.expired()) << "nothing keeps the client alive once it shut down";
  EXPECT_EQ(libraryThreads(), std::vector<std::string>{}) << "every thread it started ended";
}

TEST(Lifecycle, ALaterClientStartsTheThreadsAgain) {
  TempDirectory data;
  Collector collector;
  {
    auto first = PeloraAnalytics::create(configurationFor(data.path(), collector));
    first->trackBash("First");
    ASSERT_TRUE(first->shutdown(20s));
  }
  auto second = PeloraAnalytics::create(configurationFor(data.path(), collector));
  second->trackBash("Second");
  EXPECT_TRUE(second->flush(20s));
  EXPECT_EQ(collector.counts().distinctEvents, 2u);
  EXPECT_TRUE(second->shutdown(20s));
}

TEST(LogHandler, TakesEveryLineWithItsLevelAndStdoutStaysQuiet) {
  TempDirectory data;
  Collector collector;
  PeloraAnalytics::setDebugLogsEnabled(true);
  testing::internal::CaptureStdout();
  {
    CapturedLog log;
    auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
    analytics->trackBash("Bad", Dictionary{{"value", std::vector<int>{1}}});  // no JSON form
    analytics->shutdown(10s);
    EXPECT_TRUE(log.has(LogLevel::info, "Pelora: store and storage ready"));
    EXPECT_TRUE(log.has(LogLevel::warning, "need peloraAppPushID"));
    EXPECT_TRUE(log.has(LogLevel::info, "nonJSONType"));
  }
  PeloraAnalytics::setDebugLogsEnabled(false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Identify, LaterEventsCarryTheUserAndARestartKeepsIt) {
  TempDirectory data;
  Collector collector;
  {
    auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
    EXPECT_THROW(analytics->identify(""), std::invalid_argument);
    analytics->identify("user-7", Dictionary{{"plan", std::string("pro")}});
    analytics->identify("user-8");  // traits stay
    analytics->trackBash("After");
    ASSERT_TRUE(analytics->shutdown(20s));
  }
  ASSERT_EQ(collector.events().size(), 1u);
  EXPECT_EQ(collector.events()[0].userId, "user-8");

  auto restarted = PeloraAnalytics::create(configurationFor(data.path(), collector));
  EXPECT_EQ(restarted->userId(), "user-8");
  EXPECT_EQ(restarted->traits().value_or(Dictionary{}).count("plan"), 1u);
  restarted->reset();
  EXPECT_EQ(restarted->userId(), std::nullopt);
  EXPECT_EQ(restarted->traits(), std::nullopt);
  restarted->shutdown(10s);
}

}  // namespace
}  // namespace pelora
