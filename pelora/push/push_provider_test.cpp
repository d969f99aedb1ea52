#include "pelora/push/push_provider.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pelora {
namespace {

using ::testing::ElementsAre;

// Records every call, with its arguments, in order.
class RecordingProvider : public PushProvider {
 public:
  std::vector<std::string> calls;
  std::optional<LaunchOptions> launchOptions;
  bool answer = true;
  std::optional<std::string> userId;

  void setLogLevel(int logLevel, int visualLevel) override {
    calls.push_back("setLogLevel " + std::to_string(logLevel) + " " + std::to_string(visualLevel));
  }
  void initWithLaunchOptions(const std::optional<LaunchOptions>& options) override {
    calls.push_back("initWithLaunchOptions");
    launchOptions = options;
  }
  void setAppId(const std::string& appId) override { calls.push_back("setAppId " + appId); }
  void promptForPushNotifications(std::function<void(bool)> userResponse) override {
    calls.push_back("promptForPushNotifications");
    userResponse(answer);
  }
  std::optional<NotificationContent> didReceiveNotificationExtensionRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content,
      ContentHandler handler) override {
    calls.push_back("didReceive " + request.identifier);
    if (handler && content) handler(*content);
    if (content) content->title += " (seen)";
    return content;
  }
  std::optional<NotificationContent> serviceExtensionTimeWillExpireRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content) override {
    calls.push_back("willExpire " + request.identifier);
    return content ? std::optional<NotificationContent>{} : NotificationContent{"late", "", {}};
  }
  std::optional<std::string> deviceUserId() override { return userId; }
};

// Installs a recording provider for one test and puts the default back afterwards.
class AppPushManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { AppPushManager::setProvider(provider); }
  void TearDown() override { AppPushManager::setProvider(nullptr); }

  std::shared_ptr<RecordingProvider> provider = std::make_shared<RecordingProvider>();
};

TEST_F(AppPushManagerTest, SetUpCallsTheProviderInOrderAndPrintsTheAnswer) {
  ::testing::internal::CaptureStdout();
  AppPushManager::setUpPush("push-app", LaunchOptions{{"url", std::string("x://y")}});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "User accepted notifications: true\n");
  EXPECT_THAT(provider->calls, ElementsAre("setLogLevel 6 0", "initWithLaunchOptions",
                                           "setAppId push-app", "promptForPushNotifications"));
  ASSERT_TRUE(provider->launchOptions.has_value());
  EXPECT_EQ(std::any_cast<std::string>(provider->launchOptions->at("url")), "x://y");
}

TEST_F(AppPushManagerTest, ForwardsPassEverythingThrough) {
  const NotificationRequest request{"n1", {{"k", std::string("v")}}};
  std::optional<NotificationContent> handled;
  auto result = AppPushManager::didReceiveNotificationExtensionRequest(
      request, NotificationContent{"Hi", "there", {}},
      [&](const NotificationContent& content) { handled = content; });
  ASSERT_TRUE(handled.has_value());
  EXPECT_EQ(handled->title, "Hi");
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->title, "Hi (seen)");
  EXPECT_EQ(AppPushManager::serviceExtensionTimeWillExpireRequest(request, std::nullopt)->title,
            "late");
  EXPECT_THAT(provider->calls, ElementsAre("didReceive n1", "willExpire n1"));

  // The player id is the device user id, or empty without one.
  EXPECT_EQ(AppPushManager::playerId(), "");
  provider->userId = "player-7";
  EXPECT_EQ(AppPushManager::playerId(), "player-7");
}

TEST(AppPushManager, NullProviderIsTheDefaultAndDoesNothing) {
  AppPushManager::setProvider(nullptr);
  const auto provider = AppPushManager::provider();
  ASSERT_NE(dynamic_cast<NullPushProvider*>(provider.get()), nullptr);
  EXPECT_EQ(AppPushManager::playerId(), "");

  ::testing::internal::CaptureStdout();
  AppPushManager::setUpPush("push-app", std::nullopt);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "User accepted notifications: false\n");

  int handlerCalls = 0;
  const auto content = AppPushManager::didReceiveNotificationExtensionRequest(
      {"n", {}}, NotificationContent{"t", "b", {}},
      [&](const NotificationContent&) { ++handlerCalls; });
  EXPECT_EQ(content->title, "t");
  EXPECT_EQ(handlerCalls, 0);
}

}  // namespace
}  // namespace pelora
