// The push layer: PushProvider is what a host's push SDK offers (a real one is registered by the
// host; by default a provider that does nothing), and AppPushManager is the glue the client and a
// notification service extension call. Every function may be called from any thread.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "pelora/core/dictionary.hpp"
#include "pelora/core/export.h"

namespace pelora {

// The host's launch options, handed through to the provider as given.
using LaunchOptions = std::map<std::string, std::any>;

// A notification as it arrives at a service extension.
struct PELORA_API NotificationRequest {
  std::string identifier;
  Dictionary userInfo;
};

// What a notification shows; a service extension may change it before delivery.
struct PELORA_API NotificationContent {
  std::string title;
  std::string body;
  Dictionary userInfo;
};

// Receives the content to deliver once an extension is done with it.
using ContentHandler = std::function<void(const NotificationContent&)>;

class PELORA_API PushProvider {
 public:
  virtual ~PushProvider() = default;

  // Console logging level and alert-style logging level of the push SDK.
  virtual void setLogLevel(int logLevel, int visualLevel) = 0;
  // Starts the push SDK.
  virtual void initWithLaunchOptions(const std::optional<LaunchOptions>& launchOptions) = 0;
  // Binds the SDK to the push application.
  virtual void setAppId(const std::string& appId) = 0;
  // Asks the user for permission; `userResponse` receives the answer, possibly on another thread.
  virtual void promptForPushNotifications(std::function<void(bool accepted)> userResponse) = 0;
  // A service extension received `request`; returns the content to deliver. `handler` may be empty.
  virtual std::optional<NotificationContent> didReceiveNotificationExtensionRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content,
      ContentHandler handler) = 0;
  // The extension's time is running out; returns the content to deliver now.
  virtual std::optional<NotificationContent> serviceExtensionTimeWillExpireRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content) = 0;
  // This device's push user id, when the SDK has one.
  virtual std::optional<std::string> deviceUserId() = 0;
};

// The provider in place until a host registers one: no push, no user id, permission refused.
class PELORA_API NullPushProvider : public PushProvider {
 public:
  void setLogLevel(int, int) override {}
  void initWithLaunchOptions(const std::optional<LaunchOptions>&) override {}
  void setAppId(const std::string&) override {}
  void promptForPushNotifications(std::function<void(bool accepted)> userResponse) override;
  std::optional<NotificationContent> didReceiveNotificationExtensionRequest(
      const NotificationRequest&, std::optional<NotificationContent> content,
      ContentHandler) override {
    return content;
  }
  std::optional<NotificationContent> serviceExtensionTimeWillExpireRequest(
      const NotificationRequest&, std::optional<NotificationContent> content) override {
    return content;
  }
  std::optional<std::string> deviceUserId() override { return std::nullopt; }
};

class PELORA_API AppPushManager {
 public:
  // Registers the process-wide provider; an empty pointer puts the NullPushProvider back.
  static void setProvider(std::shared_ptr<PushProvider> provider);
  static std::shared_ptr<PushProvider> provider();

  // Starts push at client start-up: log levels (6, 0), launch options, app id, then the permission
  // prompt, whose answer is printed as "User accepted notifications: true|false".
  static void setUpPush(const std::string& appId,
                        const std::optional<LaunchOptions>& launchOptions);
  // The device's push user id, or "" when the provider has none.
  static std::string playerId();

  // Service extension entry points: passed to the provider unchanged (an empty handler stays
  // empty).
  static std::optional<NotificationContent> didReceiveNotificationExtensionRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content,
      ContentHandler handler);
  static std::optional<NotificationContent> serviceExtensionTimeWillExpireRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content);
};

}  // namespace pelora
