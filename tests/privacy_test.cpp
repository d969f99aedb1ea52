// The person's choice about tracking: opt-out and consent survive a restart, reach every client of
// the write key, delete what was stored, and once optOut() returns nothing more leaves the device.
// The local collector, in-process, plays the service.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "tests/support/iam.hpp"
#include "tests/support/temp_directory.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

class Privacy : public ::testing::Test {
 protected:
  std::shared_ptr<PeloraAnalytics> client(bool requireConsent = false) {
    auto c = std::make_shared<Configuration>("privacy-key", std::nullopt, false);
    c->flushAt(1'000'000)
        .flushInterval(3600)
        .requireConsent(requireConsent)
        .paths({data.path() / "Documents", data.path() / "config"})
        .connectTo({service.connectTo(productionTrackingHost)})
        .caBundle(service.certificates().caFile);
    return PeloraAnalytics::create(c);
  }
  // Batch files of the key, open or finished.
  std::size_t storedFiles() {
    const fs::path directory = data.path() / "Documents/pelora/privacy-key";
    std::size_t count = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error))
      count += !entry.path().filename().string().starts_with('.');
    return count;
  }

  test::TempDirectory data{"pelora-privacy"};
  Collector service;
};

TEST_F(Privacy, OptingOutDeletesWhatWasStoredRecordsNothingAndLastsAcrossARestart) {
  auto analytics = client();
  for (int i = 0; i < 3; ++i) analytics->trackBash("Before");
  analytics->storage()->syncEvents();
  ASSERT_GT(storedFiles(), 0u);
  analytics->optOut();
  EXPECT_TRUE(analytics->isOptedOut());
  EXPECT_EQ(storedFiles(), 0u);
  analytics->trackBash("While out");
  analytics->trackEvent(Dictionary{{"email", std::string("a@b.c")}}, "login", Dictionary{});
  EXPECT_EQ(storedFiles(), 0u);
  EXPECT_TRUE(analytics->flush(Clock::now() + 5s));  // nothing is waiting
  analytics->shutdown(5s);
  analytics.reset();

  auto restarted = client();
  EXPECT_TRUE(restarted->isOptedOut());
  restarted->trackBash("Still out");
  EXPECT_EQ(storedFiles(), 0u);
  restarted->optIn();
  restarted->trackBash("Back in");
  EXPECT_TRUE(restarted->flush(Clock::now() + 10s));
  restarted->shutdown(5s);
  EXPECT_EQ(service.counts().distinctEvents, 1u);
  EXPECT_EQ(service.counts().trackingEvents, 0u);
  restarted.reset();
  EXPECT_FALSE(client()->isOptedOut());
}

TEST_F(Privacy, OnceOptOutReturnsNothingMoreLeavesEvenWithUploadsRunning) {
  auto analytics = client();
  service.delayAnswers(1500ms);  // uploads stay in flight
  for (int i = 0; i < 50; ++i) analytics->trackBash("In flight");
  analytics->flush();
  for (int i = 0; i < 50; ++i) analytics->trackBash("Stored");
  std::this_thread::sleep_for(100ms);
  analytics->optOut();
  const auto atOptOut = service.counts();
  EXPECT_EQ(storedFiles(), 0u);
  analytics->flush();
  std::this_thread::sleep_for(2s);
  EXPECT_EQ(service.counts().batches, atOptOut.batches);
  EXPECT_EQ(service.counts().events, atOptOut.events);
  EXPECT_EQ(storedFiles(), 0u);
}

TEST_F(Privacy, WithConsentRequiredEventsWaitOnDiskUntilItIsGivenAcrossARestart) {
  auto analytics = client(true);
  EXPECT_FALSE(analytics->hasConsent());
  for (int i = 0; i < 3; ++i) analytics->trackBash("Waiting");
  // Posted at once, never stored: dropped while consent is pending.
  analytics->trackEvent(Dictionary{{"email", std::string("a@b.c")}}, "login", Dictionary{});
  const auto start = Clock::now();
  EXPECT_FALSE(analytics->flush(Clock::now() + 20s));  // nothing can leave: said at once
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_GT(storedFiles(), 0u);
  analytics->shutdown(5s);
  analytics.reset();

  auto restarted = client(true);
  EXPECT_FALSE(restarted->hasConsent());
  EXPECT_FALSE(restarted->flush(Clock::now() + 1s));
  EXPECT_EQ(service.counts().distinctEvents, 0u);
  restarted->grantConsent();
  EXPECT_TRUE(restarted->flush(Clock::now() + 10s));
  EXPECT_EQ(service.counts().distinctEvents, 3u);
  EXPECT_EQ(service.counts().trackingEvents, 0u);
  restarted->shutdown(5s);
  restarted.reset();

  auto again = client(true);
  EXPECT_TRUE(again->hasConsent());
  again->trackBash("Consented");
  EXPECT_TRUE(again->flush(Clock::now() + 10s));
  EXPECT_EQ(service.counts().distinctEvents, 4u);
  again->revokeConsent();
  again->trackBash("After revoking");  // stored again, not sent
  EXPECT_FALSE(again->flush(Clock::now() + 1s));
  EXPECT_EQ(service.counts().distinctEvents, 4u);
  EXPECT_GT(storedFiles(), 0u);
}

TEST_F(Privacy, AChoiceMadeThroughOneClientReachesAnotherOfTheSameKey) {
  auto recording = client();
  auto settings = client();
  for (int i = 0; i < 5; ++i) recording->trackBash("Other client");
  settings->optOut();
  // The next flush of the other client reads the choice: nothing is sent, nothing stays.
  recording->trackBash("Written before it knows");
  EXPECT_TRUE(recording->flush(Clock::now() + 5s));
  EXPECT_TRUE(recording->isOptedOut());
  EXPECT_EQ(storedFiles(), 0u);
  EXPECT_EQ(service.counts().events, 0u);
  settings->optIn();
  recording->flush();  // where the other client reads the choice again
  EXPECT_FALSE(recording->isOptedOut());
  recording->trackBash("Back");
  EXPECT_TRUE(recording->flush(Clock::now() + 10s));
  EXPECT_FALSE(recording->isOptedOut());
  EXPECT_EQ(service.counts().distinctEvents, 1u);
}

// A message pull names the device: while consent is pending, or after opting out, no pull goes.
TEST_F(Privacy, MessagePullsWaitForConsentAndStopWhenOptedOut) {
  service.holdPulls(50ms);
  auto c = std::make_shared<Configuration>("privacy-key", std::nullopt, true);
  c->flushAt(1'000'000)
      .flushInterval(3600)
      .requireConsent(true)
      .paths({data.path() / "Documents", data.path() / "config"})
      .connectTo({service.connectTo(productionTrackingHost), service.connectTo(test::iamHost())})
      .caBundle(service.certificates().caFile);
  auto analytics = PeloraAnalytics::create(c);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(service.counts().pulls, 0u);
  analytics->grantConsent();
  ASSERT_TRUE(service.waitFor([](const auto& counts) { return counts.pulls >= 2; }, 10s));
  analytics->optOut();
  const auto pulls = service.counts().pulls;
  std::this_thread::sleep_for(300ms);
  EXPECT_LE(service.counts().pulls, pulls + 1);  // at most the one under way when it stopped
  analytics->shutdown(Clock::now() + 5s);
}

}  // namespace
}  // namespace pelora
