// A client facing a service that is down, refuses connections, or answers 413/400/429/5xx: flushes
// with a deadline return as soon as nothing can change, a slow service still gets the deadline,
// the disk stays bounded, and the opt-in delivery policy splits, sets aside and backs off as
// documented. The local collector, in-process, plays the service.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

class FailingService : public ::testing::Test {
 protected:
  std::shared_ptr<Configuration> configuration(const std::string& key = "failing-key") {
    auto c = std::make_shared<Configuration>(key, std::nullopt, false);
    c->flushAt(1'000'000)
        .flushInterval(3600)
        .paths({data.path() / "Documents", data.path() / "config"})
        .connectTo({service->connectTo(productionTrackingHost)})
        .caBundle(service->certificates().caFile);
    return c;
  }
  // Finished batches and batches set aside, by extension.
  std::size_t filesEndingWith(const std::shared_ptr<PeloraAnalytics>& analytics,
                              const std::string& extension) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(analytics->storage()->eventsDirectory()))
      count += entry.path().extension() == extension;
    return count;
  }
  static DeliveryPolicy quickPolicy() {
    DeliveryPolicy policy;
    policy.initialBackoff = 20ms;
    policy.maxBackoff = 2s;
    policy.refusedAfterTries = 2;
    return policy;
  }

  test::TempDirectory data{"pelora-failing"};
  std::unique_ptr<Collector> service = std::make_unique<Collector>();
};

TEST_F(FailingService, UnreachableFlushAndShutdownReturnAtOnceAndKeepTheBatches) {
  auto analytics = PeloraAnalytics::create(configuration());
  service->stop();  // connections are refused from here on
  analytics->trackBash("Offline");
  const auto start = Clock::now();
  EXPECT_FALSE(analytics->flush(Clock::now() + 20s));
  EXPECT_FALSE(analytics->shutdown(Clock::now() + 20s));
  // Known at the first refused connection: nowhere near the deadline.
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(filesEndingWith(analytics, ".temp"), 1u);
}

TEST_F(FailingService, ASlowOrBrieflyFailingServiceStillGetsTheWholeDeadline) {
  auto analytics = PeloraAnalytics::create(configuration());
  service->failFor(503, 700ms);
  for (int i = 0; i < 5; ++i) analytics->trackBash("Retried");
  EXPECT_TRUE(analytics->flush(Clock::now() + 20s));
  EXPECT_EQ(service->counts().distinctEvents, 5u);
  EXPECT_GE(service->counts().failed, 1u);
}

TEST_F(FailingService, OfflineRecordingStaysWithinTheDiskBoundAndCountsWhatItDrops) {
  auto config = configuration();
  config->flushAt(20).maxStoredBytes(40 * 1024);
  auto analytics = PeloraAnalytics::create(config);
  service->stop();
  for (int i = 0; i < 2000; ++i)
    analytics->trackBash("Bounded", Dictionary{{"pad", std::string(100, 'x')}});
  analytics->shutdown(Clock::now() + 5s);
  std::uint64_t bytes = 0;
  for (const auto& entry : fs::directory_iterator(analytics->storage()->eventsDirectory()))
    bytes += entry.is_regular_file() ? entry.file_size() : 0;
  EXPECT_LE(bytes, 40u * 1024);
  EXPECT_GT(analytics->droppedEventCount(), 0u);
  // A failing service turns no flushAt into a file of its own: few, large batches.
  EXPECT_LE(filesEndingWith(analytics, ".temp"), 10u);
}

TEST_F(FailingService, APolicySplitsBatchesAnswered413DownToWhatTheServiceTakes) {
  auto config = configuration();
  config->deliveryPolicy(quickPolicy());
  auto analytics = PeloraAnalytics::create(config);
  service->rejectBatchesLargerThan(3);
  for (int i = 0; i < 10; ++i) analytics->trackBash("Split", Dictionary{{"seq", i}});
  EXPECT_TRUE(analytics->flush(Clock::now() + 20s));
  EXPECT_EQ(service->counts().distinctEvents, 10u);
  EXPECT_EQ(service->counts().events, 10u);  // every event exactly once
  std::set<std::int64_t> seen;
  for (const auto& event : service->events())
    seen.insert(event.properties->value<std::int64_t>("seq").value_or(-1));
  EXPECT_EQ(seen.size(), 10u);
  EXPECT_GE(service->counts().failedByStatus[413], 1u);
}

TEST_F(FailingService, APolicySetsAsideABatchRefusedForGoodAndKeepsSendingTheRest) {
  auto config = configuration("refused-key");
  config->deliveryPolicy(quickPolicy());
  auto analytics = PeloraAnalytics::create(config);
  service->refuseWriteKey("refused-key", 401);
  analytics->trackBash("Refused");
  EXPECT_TRUE(test::eventually([&] {
    (void)analytics->flush(Clock::now() + 2s);
    return filesEndingWith(analytics, ".refused") == 1;
  }));
  EXPECT_EQ(service->counts().failedByStatus[401], 2u);  // refusedAfterTries
  service->recover();
  analytics->trackBash("Accepted");
  EXPECT_TRUE(analytics->flush(Clock::now() + 20s));
  EXPECT_EQ(service->counts().distinctEvents, 1u);
  EXPECT_EQ(filesEndingWith(analytics, ".refused"), 1u);  // never sent again
}

TEST_F(FailingService, APolicyWaitsOutRetryAfterBeforeSendingTheBatchAgain) {
  auto config = configuration();
  config->deliveryPolicy(quickPolicy());
  auto analytics = PeloraAnalytics::create(config);
  service->answerInTurn({429});
  service->retryAfter("1");
  analytics->trackBash("Limited");
  const auto start = Clock::now();
  EXPECT_TRUE(analytics->flush(Clock::now() + 20s));
  EXPECT_GE(Clock::now() - start, 1s);  // not sent again before the service's wait ended
  EXPECT_EQ(service->counts().distinctEvents, 1u);

  // A wait past the deadline: flush gives up at once instead of sleeping to no purpose. The
  // service's 30 s are capped at the policy's 2 s, which the next flush waits out.
  service->answerInTurn({429});
  service->retryAfter("30");
  analytics->trackBash("Limited again");
  const auto again = Clock::now();
  EXPECT_FALSE(analytics->flush(Clock::now() + 1500ms));
  EXPECT_LT(Clock::now() - again, 1s);
  EXPECT_TRUE(analytics->flush(Clock::now() + 20s));
  EXPECT_GE(Clock::now() - again, 2s);
  EXPECT_LT(Clock::now() - again, 20s);
  EXPECT_EQ(service->counts().distinctEvents, 2u);
}

}  // namespace
}  // namespace pelora
