#include "pelora/delivery/pelora_monitor_event.hpp"

#include <gtest/gtest.h>

#include "pelora/client/analytics.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/delivery/http_client.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

class PeloraMonitorEventTest : public ::testing::Test {
 protected:
  void SetUp() override {
    configuration = std::make_shared<Configuration>("monitor-key", std::nullopt, false);
    configuration->paths(platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
    configuration->autoAddPeloraDestination(false)
        .connectTo({server.connectTo(productionTrackingHost)})
        .caBundle(server.certificates().caFile);
    client = PeloraAnalytics::create(configuration);
    plugin = client->find<PeloraMonitorEvent>();  // the client adds one at start-up
    ASSERT_TRUE(plugin);
  }

  test::TempDirectory dir;
  test::TestHttpsServer server;
  std::shared_ptr<Configuration> configuration;
  std::shared_ptr<PeloraAnalytics> client;
  std::shared_ptr<PeloraMonitorEvent> plugin;
};

TEST_F(PeloraMonitorEventTest, PostsInFlightCountsUntilTheAnswer) {
  test::ScriptedResponse slow;
  slow.delay = std::chrono::milliseconds(300);
  server.enqueue("/", slow);
  client->trackEvent(Dictionary{{"email", "a@b.c"}}, "slow", Dictionary{});
  EXPECT_EQ(plugin->postsInFlight(), 1u);
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_TRUE(test::eventually([&] { return plugin->postsInFlight() == 0; }));
}

// A monitor event is posted as it passes; a track event only passes.
TEST_F(PeloraMonitorEventTest, ExecutePassesEventsThroughUnchanged) {
  TrackEvent track("Plain", std::nullopt);
  EXPECT_EQ(plugin->execute(std::optional<TrackEvent>(track)), track);
  MonitorEvent monitor(JSON("id"), "direct", JSON(JSON::Map{}), std::nullopt);
  EXPECT_EQ(plugin->execute(std::optional<MonitorEvent>(monitor)), monitor);
  ASSERT_TRUE(server.waitForRequests(1));
  ASSERT_EQ(server.requestCount(), 1u);
  JSON body = JSON::parse(server.requests()[0].body);
  EXPECT_EQ(body["event_name"], JSON("direct"));
  EXPECT_EQ(body["profile"], JSON(JSON::List{}));
}

TEST_F(PeloraMonitorEventTest, WithoutAClientNothingIsSent) {
  PeloraMonitorEvent loose;
  MonitorEvent monitor(JSON("id"), "early", JSON(JSON::Map{}), std::nullopt);
  EXPECT_EQ(loose.execute(std::optional<MonitorEvent>(monitor)), monitor);
  EXPECT_EQ(loose.httpClient(), nullptr);
  loose.setAnalytics(nullptr);
  EXPECT_EQ(loose.httpClient(), nullptr);
}

TEST_F(PeloraMonitorEventTest, SettingsFillKeyAndHostAndAssigningMakesAFreshHTTPClient) {
  EXPECT_EQ(plugin->apiKey(), "monitor-key");  // handed the client's settings when added
  EXPECT_EQ(plugin->apiHost(), std::string(productionTrackingHost));
  auto first = plugin->httpClient();
  plugin->update(Settings(), UpdateType::refresh);
  EXPECT_EQ(plugin->apiKey(), std::nullopt);
  EXPECT_EQ(plugin->apiHost(), std::nullopt);
  EXPECT_EQ(plugin->httpClient(), first);  // settings never replace the sender

  plugin->setAnalytics(client);
  ASSERT_NE(plugin->httpClient(), first);
  EXPECT_EQ(plugin->httpClient()->apiKey(), "monitor-key");
  plugin->setAnalytics(nullptr);
  EXPECT_NE(plugin->httpClient(), nullptr);
}

}  // namespace
}  // namespace pelora
