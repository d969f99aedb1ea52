#include "pelora/client/configuration.hpp"

#include <gtest/gtest.h>

#include "pelora/core/service_hosts.hpp"

namespace pelora {
namespace {

void expectDefaults(const Configuration::Values& v) {
  EXPECT_EQ(v.flushAt, 20);
  EXPECT_EQ(v.flushInterval, 30.0);
  EXPECT_TRUE(v.trackApplicationLifecycleEvents);
  EXPECT_TRUE(v.trackDeeplinks);
  EXPECT_TRUE(v.autoAddPeloraDestination);
  EXPECT_FALSE(v.defaultSettings);
  EXPECT_FALSE(v.application.has_value());
  EXPECT_EQ(v.peloraAppPushID, "");
  EXPECT_EQ(v.apiHost, productionTrackingHost);
}

TEST(Configuration, ConstructorsFillDefaults) {
  Configuration plain("key", std::nullopt);
  expectDefaults(plain.values);
  EXPECT_EQ(plain.values.writeKey, "key");
  EXPECT_FALSE(plain.values.flavor);
  EXPECT_TRUE(plain.values.enableIAM);

  Configuration staging("key", "stg", false);
  expectDefaults(staging.values);
  EXPECT_FALSE(staging.values.enableIAM);
  EXPECT_EQ(staging.values.flavor, "stg");
}

TEST(Configuration, SettersChainOnTheSameObject) {
  auto configuration = std::make_shared<Configuration>("key", std::nullopt);
  Configuration& a = configuration->flushAt(0);
  Configuration& b = a.flushInterval(2.5);
  Configuration& c = b.apiHost("");
  EXPECT_EQ(&a, configuration.get());
  EXPECT_EQ(&b, configuration.get());
  EXPECT_EQ(&c, configuration.get());
  configuration->application(std::string("app"))
      .defaultSettings(Settings("key"))
      .peloraAppPushID("p");
  configuration->trackDeeplinks(false).trackApplicationLifecycleEvents(false);
  configuration->autoAddPeloraDestination(false);

  const auto& v = configuration->values;
  EXPECT_EQ(v.flushAt, 0);  // stored as given, not validated
  EXPECT_EQ(v.flushInterval, 2.5);
  EXPECT_EQ(v.apiHost, "");
  EXPECT_EQ(std::any_cast<std::string>(v.application), "app");
  EXPECT_EQ(v.defaultSettings, Settings("key"));
  EXPECT_EQ(v.peloraAppPushID, "p");
  EXPECT_FALSE(v.trackDeeplinks);
  EXPECT_FALSE(v.trackApplicationLifecycleEvents);
  EXPECT_FALSE(v.autoAddPeloraDestination);
}

TEST(Configuration, FlavorSelectsHostsByExactName) {
  EXPECT_EQ(trackingHost("dev"), developmentTrackingHost);
  EXPECT_EQ(trackingHost("stg"), stagingTrackingHost);
  EXPECT_EQ(inAppMessageBaseURL("dev"), developmentIAMBaseURL);
  EXPECT_EQ(inAppMessageBaseURL("stg"), stagingIAMBaseURL);
  for (std::optional<std::string> other :
       {std::optional<std::string>(), std::optional<std::string>("DEV"),
        std::optional<std::string>("stage"), std::optional<std::string>(""),
        std::optional<std::string>("production")}) {
    EXPECT_EQ(trackingHost(other), productionTrackingHost) << other.value_or("(none)");
    EXPECT_EQ(inAppMessageBaseURL(other), productionIAMBaseURL);
  }
  EXPECT_TRUE(productionIAMBaseURL.starts_with("https://"));
  EXPECT_EQ(productionTrackingHost.find('/'), std::string_view::npos);
}

}  // namespace
}  // namespace pelora
