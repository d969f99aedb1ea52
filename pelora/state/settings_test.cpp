#include "pelora/state/settings.hpp"

#include <gtest/gtest.h>

#include "pelora/core/service_hosts.hpp"

namespace pelora {
namespace {

struct PeloraEntry {
  std::string apiKey;
  std::string apiHost;
};
void decode(const JSON& json, PeloraEntry& entry) {
  decodeRequired(json, "apiKey", entry.apiKey);
  decodeRequired(json, "apiHost", entry.apiHost);
}

TEST(Settings, WriteKeyConstructorsFillOnlyIntegrations) {
  Settings settings("key/1", "example.test");
  EXPECT_EQ(toString(settings),
            R"({"integrations":{"Pelora.io":{"apiHost":"example.test","apiKey":"key/1"}}})");
  auto typed = settings.integrationSettings<PeloraEntry>("Pelora.io");
  ASSERT_TRUE(typed);
  EXPECT_EQ(typed->apiHost, "example.test");
  EXPECT_FALSE(settings.integrationSettings<PeloraEntry>("Other"));

  EXPECT_EQ(Settings("k").integrationSettings<PeloraEntry>("Pelora.io")->apiHost,
            productionTrackingHost);
  EXPECT_NE(Settings("k"), Settings("k2"));
}

TEST(Settings, DecodingNeverFailsForAnObject) {
  EXPECT_EQ(toString(decodeFromString<Settings>("{}")), "{}");

  Settings odd = decodeFromString<Settings>(R"({"integrations":5,"plan":{}})");
  EXPECT_EQ(odd.plan, JSON(JSON::Map{}));
  EXPECT_FALSE(odd.hasIntegrationSettings("5"));
  EXPECT_FALSE(odd.integrationSettings("Pelora.io"));

  Settings entries = decodeFromString<Settings>(
      R"({"integrations":{"list":[1],"text":"x","obj":{}},"edgeFunction":null})");
  for (const char* key : {"list", "text"}) {
    EXPECT_TRUE(entries.hasIntegrationSettings(key)) << key;
    EXPECT_FALSE(entries.integrationSettings(key)) << key;
  }
  EXPECT_TRUE(entries.integrationSettings("obj"));
  EXPECT_FALSE(entries.hasIntegrationSettings("missing"));
  EXPECT_EQ(decodeFromString<Settings>(toString(entries)), entries);
}

}  // namespace
}  // namespace pelora
