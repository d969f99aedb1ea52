#include "pelora/client/configuration.hpp"

#include <gtest/gtest.h>

#include "pelora/core/service_hosts.hpp"

namespace pelora {
namespace {

TEST(Configuration, FlavorSelectsHostsByExactName) {
  // The configured API host is the production one whatever the flavor.
  EXPECT_EQ(Configuration("key", "stg", false).values.apiHost, productionTrackingHost);
  struct Case {
    std::optional<std::string> flavor;
    std::string_view host, iam;
  };
  const Case production{std::nullopt, productionTrackingHost, productionIAMBaseURL};
  std::vector<Case> cases = {{"dev", developmentTrackingHost, developmentIAMBaseURL},
                             {"stg", stagingTrackingHost, stagingIAMBaseURL},
                             production};
  for (const char* other : {"DEV", ""}) {
    cases.push_back(production);
    cases.back().flavor = other;
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.flavor.value_or("(none)"));
    EXPECT_EQ(trackingHost(c.flavor), c.host);
    EXPECT_EQ(inAppMessageBaseURL(c.flavor), c.iam);
  }
}

}  // namespace
}  // namespace pelora
