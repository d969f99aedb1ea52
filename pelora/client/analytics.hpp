// PeloraAnalytics: the client a host creates once and keeps for the life of the process. It owns
// the store, the storage and the plugin timeline; public calls run on the caller's thread and are
// safe from several threads at once.
#pragma once

#include <any>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/events.hpp"
#include "pelora/log/pelora_log.hpp"
#include "pelora/platform/app_lifecycle.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/plugin/plugin.hpp"
#include "pelora/plugin/timeline.hpp"
#include "pelora/push/push_provider.hpp"
#include "pelora/state/configuration.hpp"

namespace pelora {

class DeliveryProgress;
class Store;
class Storage;

class PELORA_API PeloraAnalytics : public PluginHost,
                                   public std::enable_shared_from_this<PeloraAnalytics> {
 public:
  // Builds the client and runs its start-up (storage, states, built-in plugins, settings check,
  // in-app messages, push).
  static std::shared_ptr<PeloraAnalytics> create(
      std::shared_ptr<Configuration> configuration,
      std::optional<LaunchOptions> launchOptions = std::nullopt);

  // Prints start-up progress and lets log plugins and destinations print; off by default.
  static bool debugLogsEnabled() noexcept;
  static void setDebugLogsEnabled(bool enabled) noexcept;
  // Every line the library prints or logs goes to `handler` (level and text, on whichever thread
  // wrote it) and nothing to standard output; an empty handler restores the console.
  static void setLogHandler(LogHandler handler);
  // The device-level user id sent with monitor events: on first read the device id (stable per
  // machine and application), unless set.
  static std::optional<std::string> peloraUserId();
  static void setPeloraUserId(std::optional<std::string> userId);
  // Stops watching the app lifecycle, so that a destroyed client is never called back (a client
  // normally lives as long as the process).
  ~PeloraAnalytics() override;

  // The library's version: the project version this build was configured with.
  static std::string version();

  const std::shared_ptr<Configuration>& configuration() const noexcept override {
    return configuration_;
  }
  const std::shared_ptr<Store>& store() const noexcept override { return store_; }
  const std::shared_ptr<Storage>& storage() const noexcept override { return storage_; }
  const std::shared_ptr<Timeline>& timeline() const noexcept { return timeline_; }
  const std::optional<LaunchOptions>& launchOptions() const noexcept { return launchOptions_; }

  // Identity and settings from the store ("" / nothing before start-up).
  std::string anonymousId() const;
  std::optional<std::string> userId() const;
  std::optional<Dictionary> traits() const;
  template <class T>
  std::optional<T> traits() const;
  std::optional<Settings> settings() const override;

  // Records a named event. Properties that cannot become JSON are dropped (the error is printed)
  // and the event is still recorded.
  void trackBash(const std::string& name, const std::optional<Dictionary>& properties = {});
  template <class T>
  void trackBash(const std::string& name, const std::optional<T>& properties);
  // Records a named event whose properties are JSON text already read (JSONText::parse: numbers
  // keep their digits). Properties that are not an object, or nest too deep for a batch, are
  // dropped (the error is printed) and the event is still recorded, as for a dictionary.
  void trackBash(const std::string& name, JSONText properties);
  // Records an identity-tracking event, sent at once.
  void trackEvent(const Dictionary& identityId, const std::string& eventName,
                  const Dictionary& eventData,
                  const std::optional<std::vector<Dictionary>>& profile = {});
  template <class T>
  void trackEvent(const std::optional<T>& monitorEvent);

  // Configures `plugin` with this client and adds it to the timeline.
  std::shared_ptr<Plugin> add(std::shared_ptr<Plugin> plugin);
  void remove(const std::shared_ptr<Plugin>& plugin);
  void apply(const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const;
  template <class T>
  std::shared_ptr<T> find() const {
    return timeline_->find<T>();
  }
  std::shared_ptr<DestinationPlugin> find(std::string_view key) const;

  using Clock = std::chrono::steady_clock;

  // Flushes every event plugin, destinations' own plugins included; returns at once.
  void flush();
  // Finishes the open batch, uploads every stored batch (again after a failed upload) and waits
  // for identity-tracking posts, until nothing is left unsent or `deadline`. True when everything
  // was delivered in time. Returns false at once, the batches kept for a later run, when the
  // service cannot be reached at all (connection refused, no route, unknown host) or asks for a
  // wait past `deadline`. Blocks the calling thread (not a main-queue task: that would stall it).
  bool flush(Clock::time_point deadline);
  bool flush(Clock::duration timeout) { return flush(Clock::now() + timeout); }
  // flush(deadline); then stops the flush timer, the lifecycle observer and the in-app message
  // polling this client started, shuts every plugin down and releases it (so the client can be
  // destroyed), and waits until no library thread is left with nothing to do (a short grace past
  // `deadline` for threads that only need to exit). Afterwards the client records nothing:
  // trackBash and trackEvent drop the event and print a warning line. True when everything was
  // delivered and the threads ended. Later calls return the first call's result.
  bool shutdown(Clock::time_point deadline);
  bool shutdown(Clock::duration timeout) { return shutdown(Clock::now() + timeout); }
  bool isShutDown() const noexcept { return shutDown_.load(); }
  // Sets who the user is: later events carry `userId`, and it survives a restart along with the
  // traits (when given; else the traits stay). Traits that cannot become JSON are reported and
  // left as they were. Throws std::invalid_argument for an empty user id.
  void identify(const std::string& userId, const std::optional<Dictionary>& traits = {});
  // Forgets the user (new anonymous id, no userId or traits) and resets every event plugin.
  void reset();
  // Marks the destination's key as enabled in the settings.
  void manuallyEnableDestination(const std::shared_ptr<DestinationPlugin>& plugin);
  // True while events are waiting: uploads in flight, events not yet flushed, or finished files.
  bool hasUnsentEvents() const;
  // The finished batch files waiting for upload.
  std::optional<std::vector<std::filesystem::path>> pendingUploads() const;
  // Events that the disk bound (Configuration::maxStoredBytes, maxBatchAge) deleted undelivered
  // since this client was created.
  std::uint64_t droppedEventCount() const;
  // The person's choice about tracking, kept in the suite so that a restart (and every client of
  // the write key) keeps it. Opted out, trackBash and trackEvent record nothing and nothing is
  // sent; optOut() also deletes the stored batches and, when it returns, no upload or post of
  // this client is still running. optIn() records again.
  void optOut();
  void optIn();
  bool isOptedOut() const noexcept { return optedOut_.load(std::memory_order_relaxed); }
  // With Configuration::requireConsent, events are stored but nothing leaves the device (and
  // identity-tracking events, which are never stored, are dropped) until grantConsent();
  // revokeConsent() stops sending again and deletes what is stored. Without it these only record
  // the choice.
  void grantConsent();
  void revokeConsent();
  bool hasConsent() const noexcept { return consent_.load(std::memory_order_relaxed); }

  // Returns once a startup queue in the timeline (if any) is running; at once when there is none
  // or when called from a main-queue task (which could never see the flag change).
  void waitUntilStarted() const;

  // Log lines: passed to a log plugin in the timeline while debug logs are on.
  void log(std::string_view message, std::optional<LogFilterKind> kind, std::string_view function,
           int line) override;
  void add(std::shared_ptr<LogTarget> target, LoggingType type);
  void logFlush() override;
  void pluginsChanged() noexcept override;

  // Notification-service-extension forwards to the registered push provider.
  static std::optional<NotificationContent> didReceiveNotificationExtensionRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content,
      std::function<void(const NotificationContent&)> contentHandler);
  static std::optional<NotificationContent> serviceExtensionTimeWillExpireRequest(
      const NotificationRequest& request, std::optional<NotificationContent> content);

 private:
  PeloraAnalytics(std::shared_ptr<Configuration> configuration,
                  std::optional<LaunchOptions> launchOptions);
  void start();
  void checkSettings();
  // Completes the event and runs the timeline on it in place: this runs for every recorded event,
  // so the event is moved along, never copied.
  template <class E>
  void process(std::optional<E>&& event);
  void completeEvent(RawEvent& event) const;
  std::optional<JSON> traitsJSON() const;
  void trackBashJSON(const std::string& name, std::optional<JSON> properties);
  void trackMonitorEventJSON(const JSON& value);
  void forEachEventPlugin(const std::function<void(EventPlugin&)>& action) const;
  bool accepting(std::string_view what) const;
  // Whether events may leave the device now, after reading the choice again from the suite (a
  // change by another client of the key is applied here).
  bool maySend();
  bool sendingAllowed() const noexcept;
  // trackEvent posts at once: while consent is pending the event is dropped (and said so).
  bool mayPost() const;
  // Reads the stored choice and brings the destinations and the stored batches in line with it.
  void applyPrivacyChoice(bool fresh);
  // Takes a choice (privacyMutex_ held): recording, delivery and the stored batches follow it;
  // true when it deleted what was stored.
  bool applyChoice(bool optedOut, bool consent);
  void withholdDelivery(bool withheld);
  // In-app message polling follows the choice too, since a pull names the device (privacyMutex_
  // held): on while sending is allowed and the client runs, with enableIAM.
  void pollMessages(bool on);
  // Deletes every stored batch of the key and what the destination knew of them.
  void eraseStored();
  bool pluginsReadEventValues() const;
  bool deliveredAll() const;
  bool postsAndStartupDone() const;
  bool flushUntil(Clock::time_point deadline);
  void releasePlugins();

  std::atomic<bool> optedOut_{false};
  std::atomic<bool> consent_{false};
  std::mutex privacyMutex_;  // one change of the choice at a time
  std::shared_ptr<Configuration> configuration_;
  std::shared_ptr<Store> store_;
  std::shared_ptr<Storage> storage_;
  std::optional<LaunchOptions> launchOptions_;
  std::shared_ptr<Timeline> timeline_;
  // What flush(deadline) waits on: the built-in destinations move it on as uploads and posts end.
  std::shared_ptr<DeliveryProgress> progress_;
  std::optional<platform::AppLifecycle::ObserverToken> foregroundObserver_;
  // The token of this client's message polling while it runs; guarded by privacyMutex_.
  std::optional<std::uint64_t> messagesStarted_;
  std::atomic<bool> shutDown_{false};
  // pluginsReadEventValues() without walking the timeline per event: the answer (low bit) for
  // the plugin change count in the other bits, recomputed when the count moved on.
  std::atomic<std::uint64_t> pluginChanges_{0};
  mutable std::atomic<std::uint64_t> readsEventValuesAnswer_{~std::uint64_t{0}};
  std::mutex shutdownMutex_;  // one shutdown at a time; guards the result
  std::optional<bool> shutdownResult_;
};

template <class T>
std::optional<T> PeloraAnalytics::traits() const {
  auto json = traitsJSON();
  if (!json) return std::nullopt;
  try {
    return decodeValue<T>(*json);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

template <class T>
void PeloraAnalytics::trackBash(const std::string& name, const std::optional<T>& properties) {
  std::optional<JSON> converted;
  if (properties) {
    try {
      converted = JSON::with(*properties);
    } catch (const std::exception& error) {
      platform::printLine(error.what(), LogLevel::info);
    }
  }
  trackBashJSON(name, std::move(converted));
}

template <class T>
void PeloraAnalytics::trackEvent(const std::optional<T>& monitorEvent) {
  if (!monitorEvent) return;
  try {
    trackMonitorEventJSON(JSON::with(*monitorEvent));
  } catch (const std::exception& error) {
    platform::printLine(error.what(), LogLevel::info);
  }
}

}  // namespace pelora
