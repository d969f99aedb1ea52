#include "pelora/state/system.hpp"

#include <gtest/gtest.h>

#include "pelora/core/service_hosts.hpp"
#include "pelora/state/storage.hpp"
#include "tests/support/temp_directory.hpp"

namespace pelora {
namespace {

class SystemStateTest : public ::testing::Test {
 protected:
  std::shared_ptr<Storage> storage() {
    return Storage::create(std::make_shared<Store>(), "state-key",
                           platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
  }
  test::TempDirectory dir;
  std::shared_ptr<Configuration> configuration =
      std::make_shared<Configuration>("state-key", std::nullopt);
};

TEST_F(SystemStateTest, DefaultSettingsComeFromStorageThenConfigurationThenWriteKey) {
  auto fresh = System::defaultState(configuration, *storage());
  EXPECT_EQ(fresh.settings, Settings("state-key", std::string(productionTrackingHost)));
  EXPECT_FALSE(fresh.running);
  EXPECT_EQ(fresh.configuration, configuration);

  Settings custom;
  custom.plan = JSON("custom");
  configuration->defaultSettings(custom);
  EXPECT_EQ(System::defaultState(configuration, *storage()).settings, custom);

  Settings stored;
  stored.plan = JSON("stored");
  storage()->write(Storage::Key::settings, stored);
  EXPECT_EQ(System::defaultState(configuration, *storage()).settings, stored);
}

TEST_F(SystemStateTest, EnablingADestinationNeedsAnIntegrationsObject) {
  System system;
  system.settings = decodeFromString<Settings>(R"({"integrations":{"Dest":false},"plan":1})");
  System enabled = System::AddDestinationToSettingsAction{"Dest"}.reduce(system);
  EXPECT_EQ(enabled.settings->integrations->toString(), R"({"Dest":true})");
  EXPECT_EQ(enabled.settings->plan, JSON(1));
  EXPECT_TRUE(enabled.settings->hasIntegrationSettings("Dest"));

  for (const char* text : {R"({"plan":1})", R"({"integrations":[1]})", R"({"integrations":"x"})"}) {
    system.settings = decodeFromString<Settings>(text);
    EXPECT_EQ(System::AddDestinationToSettingsAction{"Dest"}.reduce(system).settings,
              system.settings)
        << text;
  }
  system.settings.reset();
  EXPECT_FALSE(System::AddDestinationToSettingsAction{"Dest"}.reduce(system).settings);
}

TEST_F(SystemStateTest, UserInfoUsesStoredIdentityOrANewAnonymousId) {
  auto first = UserInfo::defaultState(*storage());
  auto second = UserInfo::defaultState(*storage());
  EXPECT_NE(first.anonymousId, second.anonymousId);  // nothing stored: new each time
  EXPECT_FALSE(first.userId);

  auto kept = storage();
  kept->write(Storage::Key::anonymousId, std::string("ANON"));
  kept->write(Storage::Key::userId, std::string("user-1"));
  kept->write(Storage::Key::traits, JSON::parse(R"({"plan":"pro"})"));
  UserInfo stored = UserInfo::defaultState(*storage());
  EXPECT_EQ(stored.anonymousId, "ANON");
  EXPECT_EQ(stored.userId, "user-1");
  EXPECT_EQ(stored.traits, JSON::parse(R"({"plan":"pro"})"));

  UserInfo reset = UserInfo::ResetAction{}.reduce(stored);
  EXPECT_FALSE(reset.userId);
  EXPECT_FALSE(reset.traits);
  EXPECT_NE(reset.anonymousId, "ANON");

  EXPECT_EQ(toString(reset), R"({"anonymousId":")" + reset.anonymousId + R"("})");
  EXPECT_EQ(decodeFromString<UserInfo>(toString(stored)), stored);
  EXPECT_THROW((void)decodeFromString<UserInfo>(R"({"userId":"u"})"), DecodingError);
}

}  // namespace
}  // namespace pelora
