#include "pelora/push/push_provider.hpp"

#include <mutex>
#include <utility>

#include "pelora/platform/console.hpp"

namespace pelora {
namespace {

struct ProviderRegistry {
  std::mutex mutex;
  std::shared_ptr<PushProvider> provider = std::make_shared<NullPushProvider>();
};

// Leaked: a service extension or a worker thread may still ask for the provider during exit().
ProviderRegistry& registry() {
  static auto* instance = new ProviderRegistry;
  return *instance;
}

}  // namespace

void NullPushProvider::promptForPushNotifications(std::function<void(bool accepted)> userResponse) {
  if (userResponse) userResponse(false);
}

void AppPushManager::setProvider(std::shared_ptr<PushProvider> provider) {
  if (!provider) provider = std::make_shared<NullPushProvider>();
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.provider.swap(provider);  // the old one is released outside the lock
}

std::shared_ptr<PushProvider> AppPushManager::provider() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return r.provider;
}

void AppPushManager::setUpPush(const std::string& appId,
                               const std::optional<LaunchOptions>& launchOptions) {
  const auto push = provider();
  push->setLogLevel(6, 0);  // the SDK's most verbose console level; no alert-style logging
  push->initWithLaunchOptions(launchOptions);
  push->setAppId(appId);
  // Printed whatever the debug switch says: the host should see the user's answer.
  push->promptForPushNotifications([](bool accepted) {
    platform::printLine(
        accepted ? "User accepted notifications: true" : "User accepted notifications: false",
        LogLevel::info);
  });
}

std::string AppPushManager::playerId() {
  return provider()->deviceUserId().value_or("");
}

std::optional<NotificationContent> AppPushManager::didReceiveNotificationExtensionRequest(
    const NotificationRequest& request, std::optional<NotificationContent> content,
    ContentHandler handler) {
  return provider()->didReceiveNotificationExtensionRequest(request, std::move(content),
                                                            std::move(handler));
}

std::optional<NotificationContent> AppPushManager::serviceExtensionTimeWillExpireRequest(
    const NotificationRequest& request, std::optional<NotificationContent> content) {
  return provider()->serviceExtensionTimeWillExpireRequest(request, std::move(content));
}

}  // namespace pelora
