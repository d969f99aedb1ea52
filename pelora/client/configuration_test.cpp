#include "pelora/client/configuration.hpp"

#include <gtest/gtest.h>

#include "pelora/core/service_hosts.hpp"

namespace pelora {
namespace {

TEST(Configuration, ConstructorsTakeKeyFlavorAndIAMSwitch) {
  Configuration plain("key", std::nullopt);
  EXPECT_EQ(plain.values.writeKey, "key");
  EXPECT_FALSE(plain.values.flavor);
  EXPECT_TRUE(plain.values.enableIAM);
  EXPECT_EQ(plain.values.apiHost, productionTrackingHost);

  Configuration staging("key", "stg", false);
  EXPECT_EQ(staging.values.flavor, "stg");
  EXPECT_FALSE(staging.values.enableIAM);
  EXPECT_EQ(staging.values.apiHost, productionTrackingHost);  // the flavor does not pick it
}

TEST(Configuration, FlavorSelectsHostsByExactName) {
  struct Case {
    std::optional<std::string> flavor;
    std::string_view host, iam;
  };
  const Case production{std::nullopt, productionTrackingHost, productionIAMBaseURL};
  std::vector<Case> cases = {{"dev", developmentTrackingHost, developmentIAMBaseURL},
                             {"stg", stagingTrackingHost, stagingIAMBaseURL},
                             production};
  for (const char* other : {"DEV", "stage", "", "production"}) {
    cases.push_back(production);
    cases.back().flavor = other;
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.flavor.value_or("(none)"));
    EXPECT_EQ(trackingHost(c.flavor), c.host);
    EXPECT_EQ(inAppMessageBaseURL(c.flavor), c.iam);
  }
  EXPECT_TRUE(productionIAMBaseURL.starts_with("https://"));
  EXPECT_EQ(productionTrackingHost.find('/'), std::string_view::npos);
}

}  // namespace
}  // namespace pelora
