#include "pelora/client/analytics.hpp"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "pelora/client/startup_queue.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/core/version.hpp"
#include "pelora/delivery/delivery_progress.hpp"
#include "pelora/delivery/pelora_destination.hpp"
#include "pelora/delivery/pelora_monitor_event.hpp"
#include "pelora/messages/iam_manager.hpp"
#include "pelora/platform/app_lifecycle.hpp"
#include "pelora/platform/clock.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/uuid.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"
#include "pelora/state/system.hpp"

namespace pelora {
namespace {

// The process-wide device-level user id: initialised from the device id on first read.
struct UserIdSlot {
  std::mutex mutex;
  bool initialised = false;
  std::optional<std::string> value;
};
UserIdSlot& userIdSlot() {
  static auto* slot = new UserIdSlot;  // never destroyed: read by worker threads during exit()
  return *slot;
}

std::string applicationName() {
  std::error_code error;
  auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string("pelora") : executable.filename().string();
}

void debugPrint(std::string_view line) {
  if (PeloraAnalytics::debugLogsEnabled()) platform::printLine(line, LogLevel::info);
}

// Nothing recorded may be refused by a reader: a value nested too deep for the batch file is
// reported and left out, like one that has no JSON form.
void reportTooDeep() {
  platform::printLine(JSONError::nonJSONType("a value nested deeper than " +
                                             std::to_string(maxEventValueDepth) + " levels")
                          .what(),
                      LogLevel::info);
}

std::optional<JSON> reportIfTooDeep(std::optional<JSON> value) {
  if (value && value->nestedDeeperThan(maxEventValueDepth)) {
    reportTooDeep();
    return std::nullopt;
  }
  return value;
}

// Host dictionaries become JSON; one that cannot is reported and left out.
std::optional<JSON> convertOrReport(const Dictionary& dictionary) {
  try {
    return reportIfTooDeep(JSON(dictionary));
  } catch (const JSONError& error) {
    platform::printLine(error.what(), LogLevel::info);
    return std::nullopt;
  }
}

}  // namespace

// ---- Type-level values --------------------------------------------------------------------------

// One switch for the whole library: the log's.
bool PeloraAnalytics::debugLogsEnabled() noexcept {
  return platform::log::debugEnabled();
}

void PeloraAnalytics::setDebugLogsEnabled(bool enabled) noexcept {
  platform::log::setDebugEnabled(enabled);
}

void PeloraAnalytics::setLogHandler(LogHandler handler) {
  platform::setLogHandler(std::move(handler));
}

std::optional<std::string> PeloraAnalytics::peloraUserId() {
  auto& slot = userIdSlot();
  std::lock_guard lock(slot.mutex);
  if (!slot.initialised) {
    slot.value = platform::deviceIdentifier(applicationName());
    slot.initialised = true;
  }
  return slot.value;
}

void PeloraAnalytics::setPeloraUserId(std::optional<std::string> userId) {
  auto& slot = userIdSlot();
  std::lock_guard lock(slot.mutex);
  slot.value = std::move(userId);
  slot.initialised = true;
}

// ---- Start-up -----------------------------------------------------------------------------------

std::shared_ptr<PeloraAnalytics> PeloraAnalytics::create(
    std::shared_ptr<Configuration> configuration, std::optional<LaunchOptions> launchOptions) {
  std::shared_ptr<PeloraAnalytics> analytics(
      new PeloraAnalytics(std::move(configuration), std::move(launchOptions)));
  analytics->start();
  return analytics;
}

PeloraAnalytics::PeloraAnalytics(std::shared_ptr<Configuration> configuration,
                                 std::optional<LaunchOptions> launchOptions)
    : configuration_(std::move(configuration)),
      store_(std::make_shared<Store>()),
      storage_(Storage::create(
          store_, configuration_->values.writeKey,
          configuration_->values.paths.value_or(platform::Paths{}),
          {configuration_->values.syncEveryEvent, configuration_->values.syncWindow})),
      launchOptions_(std::move(launchOptions)),
      timeline_(std::make_shared<Timeline>()),
      progress_(std::make_shared<DeliveryProgress>()) {}

std::string PeloraAnalytics::version() {
  return std::string(libraryVersion);
}

PeloraAnalytics::~PeloraAnalytics() {
  if (foregroundObserver_) platform::AppLifecycle::shared().removeObserver(*foregroundObserver_);
}

void PeloraAnalytics::start() {
  const auto& values = configuration_->values;
  store_->provide(System::defaultState(configuration_, *storage_));
  UserInfo user = UserInfo::defaultState(*storage_);
  // A freshly made anonymous id is kept at once, so the next run is the same user.
  storage_->write(Storage::Key::anonymousId, user.anonymousId);
  store_->provide(std::move(user));
  debugPrint("Pelora: store and storage ready");

  add(std::make_shared<PeloraLog>(LogFilterKind::debug, PluginType::utility,
                                  PeloraLog::TargetTable{}));

  // The person's choice is known before any destination can send.
  optedOut_ = storage_->read<bool>(Storage::Key::optedOut).value_or(false);
  consent_ = storage_->read<bool>(Storage::Key::consent).value_or(false);
  if (optedOut_) storage_->refuseEvents(true);
  std::weak_ptr<PeloraAnalytics> self = weak_from_this();
  if (values.autoAddPeloraDestination) {
    auto destination = std::make_shared<PeloraDestination>();
    destination->setAnalytics(shared_from_this());
    destination->setProgress(progress_);
    destination->setUploadGate([self] {
      auto analytics = self.lock();
      return analytics && analytics->maySend();
    });
    if (!sendingAllowed()) destination->withhold(true);
    add(destination);  // configures it (storage, HTTP client, flush timer) with this client
  }
  auto monitor = std::make_shared<PeloraMonitorEvent>();
  monitor->setAnalytics(shared_from_this());
  monitor->setProgress(progress_);
  if (!sendingAllowed()) monitor->withhold(true);
  add(monitor);
  debugPrint("Pelora: built-in destinations added");

  checkSettings();
  std::weak_ptr<PeloraAnalytics> weak = weak_from_this();
  foregroundObserver_ = platform::AppLifecycle::shared().addWillEnterForegroundObserver(
      [weak](platform::AppLifecycle::State state) {
        if (state != platform::AppLifecycle::State::background) return;
        if (auto analytics = weak.lock()) analytics->checkSettings();
      });
  debugPrint("Pelora: settings checked");

  {
    std::lock_guard lock(privacyMutex_);
    pollMessages(sendingAllowed());
  }

  if (!values.peloraAppPushID.empty()) {
    AppPushManager::setUpPush(values.peloraAppPushID, launchOptions_);
  } else {
    platform::printLine(
        "Warning: Pelora SDK need peloraAppPushID to enable feature Pelora Notification",
        LogLevel::warning);
  }
}

void PeloraAnalytics::checkSettings() {
  auto system = store_->currentState<System>();
  const bool hadSettings = system && system->settings;
  store_->dispatch(System::ToggleRunningAction{false});
  Settings settings(configuration_->values.writeKey, std::string(productionTrackingHost));
  store_->dispatch(System::UpdateSettingsAction{settings});
  storage_->write(Storage::Key::settings, settings);
  const UpdateType type = hadSettings ? UpdateType::refresh : UpdateType::initial;
  // apply() already reaches the plugins inside destinations; they hear of it twice, as designed.
  timeline_->apply([&](const std::shared_ptr<Plugin>& plugin) {
    plugin->update(settings, type);
    if (auto destination = std::dynamic_pointer_cast<DestinationPlugin>(plugin)) {
      destination->apply(
          [&](const std::shared_ptr<Plugin>& inner) { inner->update(settings, type); });
    }
  });
  store_->dispatch(System::ToggleRunningAction{true});
}

// ---- Identity and settings ----------------------------------------------------------------------

std::string PeloraAnalytics::anonymousId() const {
  auto user = store_->currentState<UserInfo>();
  return user ? user->anonymousId : std::string();
}

std::optional<std::string> PeloraAnalytics::userId() const {
  auto user = store_->currentState<UserInfo>();
  return user ? user->userId : std::nullopt;
}

std::optional<Dictionary> PeloraAnalytics::traits() const {
  auto user = store_->currentState<UserInfo>();
  if (!user || !user->traits) return std::nullopt;
  return user->traits->dictionaryValue();
}

std::optional<JSON> PeloraAnalytics::traitsJSON() const {
  auto user = store_->currentState<UserInfo>();
  return user ? user->traits : std::nullopt;
}

std::optional<Settings> PeloraAnalytics::settings() const {
  auto system = store_->currentState<System>();
  return system ? system->settings : std::nullopt;
}

// ---- Recording ----------------------------------------------------------------------------------

bool PeloraAnalytics::accepting(std::string_view what) const {
  if (optedOut_.load(std::memory_order_relaxed)) return false;  // the person's choice: silently
  if (!shutDown_.load(std::memory_order_relaxed)) return true;
  platform::printLine("Pelora: " + std::string(what) + " after shutdown(); the event is dropped",
                      LogLevel::warning);
  return false;
}

bool PeloraAnalytics::mayPost() const {
  if (sendingAllowed()) return true;
  platform::printLine("Pelora: trackEvent while consent is pending; the event is dropped",
                      LogLevel::warning);
  return false;
}

bool PeloraAnalytics::sendingAllowed() const noexcept {
  return !optedOut_.load(std::memory_order_relaxed) &&
         (!configuration_->values.requireConsent || consent_.load(std::memory_order_relaxed));
}

bool PeloraAnalytics::maySend() {
  applyPrivacyChoice(true);
  return sendingAllowed();
}

void PeloraAnalytics::withholdDelivery(bool withheld) {
  if (auto destination = find<PeloraDestination>()) destination->withhold(withheld);
  if (auto monitor = find<PeloraMonitorEvent>()) monitor->withhold(withheld);
}

void PeloraAnalytics::pollMessages(bool on) {
  const auto& values = configuration_->values;
  on = on && values.enableIAM && !shutDown_.load();
  if (on == messagesStarted_.has_value()) return;
  if (!on) {
    IAMManager::shared()->stopPolling(messagesStarted_);
    messagesStarted_.reset();
    return;
  }
  IAMManager::Setup setup;
  setup.hostDomain = std::string(inAppMessageBaseURL(values.flavor));
  setup.workSpaceId = values.writeKey;
  setup.peloraUserId = peloraUserId().value_or("");
  setup.connectTo = values.connectTo;
  setup.caBundle = values.caBundle;
  setup.proxy = values.proxy;
  // Whole milliseconds; a negative, NaN or absurd value means no wait.
  const double delay = values.iamRetryDelay;
  if (delay > 0 && delay < 86'400) {
    setup.retryDelay = std::chrono::milliseconds(static_cast<std::int64_t>(delay * 1000));
  }
  messagesStarted_ = IAMManager::shared()->start(std::move(setup));
}

void PeloraAnalytics::eraseStored() {
  storage_->eraseStoredEvents();
  if (auto destination = find<PeloraDestination>()) destination->forgetStored();
}

void PeloraAnalytics::applyPrivacyChoice(bool fresh) {
  std::lock_guard lock(privacyMutex_);
  if (fresh) storage_->reloadSuite();
  applyChoice(storage_->read<bool>(Storage::Key::optedOut).value_or(false),
              storage_->read<bool>(Storage::Key::consent).value_or(false));
}

bool PeloraAnalytics::applyChoice(bool optedOut, bool consent) {
  const bool wasOut = optedOut_.exchange(optedOut);
  const bool hadConsent = consent_.exchange(consent);
  const bool allowed = sendingAllowed();
  if (optedOut != wasOut) storage_->refuseEvents(optedOut);
  if (allowed != (!wasOut && (!configuration_->values.requireConsent || hadConsent))) {
    withholdDelivery(!allowed);
    pollMessages(allowed);
  }
  // Opted out or consent revoked (here or through another client of the key): what is stored goes.
  if ((optedOut && !wasOut) || (configuration_->values.requireConsent && hadConsent && !consent)) {
    eraseStored();
    return true;
  }
  return false;
}

void PeloraAnalytics::optOut() {
  std::lock_guard lock(privacyMutex_);
  storage_->write(Storage::Key::optedOut, true);
  if (!applyChoice(true, consent_)) eraseStored();  // opted out already: anything left goes too
}

void PeloraAnalytics::optIn() {
  std::lock_guard lock(privacyMutex_);
  storage_->write(Storage::Key::optedOut, false);
  applyChoice(false, consent_);
}

void PeloraAnalytics::grantConsent() {
  {
    std::lock_guard lock(privacyMutex_);
    storage_->write(Storage::Key::consent, true);
    applyChoice(optedOut_, true);
  }
  flush();  // what waited for consent goes now
}

void PeloraAnalytics::revokeConsent() {
  std::lock_guard lock(privacyMutex_);
  storage_->write(Storage::Key::consent, false);
  if (!applyChoice(optedOut_, false) && configuration_->values.requireConsent) eraseStored();
}

bool PeloraAnalytics::pluginsReadEventValues() const {
  const std::uint64_t changes = pluginChanges_.load(std::memory_order_acquire);
  const std::uint64_t answer = readsEventValuesAnswer_.load(std::memory_order_acquire);
  if (answer >> 1 == changes) return answer & 1;
  // A change while this looks is counted after `changes`: the next call looks again.
  const bool reads = timeline_->readsEventValues();
  readsEventValuesAnswer_.store(changes << 1 | (reads ? 1 : 0), std::memory_order_release);
  return reads;
}

void PeloraAnalytics::pluginsChanged() noexcept {
  pluginChanges_.fetch_add(1, std::memory_order_acq_rel);
}

void PeloraAnalytics::trackBash(const std::string& name,
                                const std::optional<Dictionary>& properties) {
  if (!accepting("trackBash")) return;
  if (properties && !pluginsReadEventValues()) {
    // Nobody looks at the properties before they are written: skip building them as JSON.
    std::optional<TrackEvent> event(std::in_place, name, std::nullopt);
    try {
      event->propertiesText =
          std::make_shared<const std::string>(hostDictionaryText(*properties, maxEventValueDepth));
    } catch (const JSONError& error) {
      platform::printLine(error.what(), LogLevel::info);  // left out, as when building them fails
    }
    process(std::move(event));
    return;
  }
  std::optional<JSON> converted;
  if (properties) converted = convertOrReport(*properties);
  process(std::optional<TrackEvent>(std::in_place, name, std::move(converted)));
}

void PeloraAnalytics::trackBash(const std::string& name, JSONText properties) {
  if (!accepting("trackBash")) return;
  std::optional<TrackEvent> event(std::in_place, name, std::nullopt);
  if (properties.kind() != JSON::Kind::object) {
    platform::printLine(JSONError::nonJSONType("properties that are not a JSON object").what(),
                        LogLevel::info);
  } else if (properties.depth() > maxEventValueDepth) {
    reportTooDeep();
  } else if (!pluginsReadEventValues()) {
    // The text is already as the batch holds it: no value is built at all.
    event->propertiesText = std::make_shared<const std::string>(std::move(properties).takeText());
  } else {
    event->properties = JSON::parse(properties.text());
  }
  process(std::move(event));
}

void PeloraAnalytics::trackBashJSON(const std::string& name, std::optional<JSON> properties) {
  if (!accepting("trackBash")) return;
  process(std::optional<TrackEvent>(std::in_place, name, reportIfTooDeep(std::move(properties))));
}

void PeloraAnalytics::trackEvent(const Dictionary& identityId, const std::string& eventName,
                                 const Dictionary& eventData,
                                 const std::optional<std::vector<Dictionary>>& profile) {
  if (!accepting("trackEvent") || !mayPost()) return;
  const auto userIdValue = peloraUserId();
  const std::string playerId = AppPushManager::playerId();
  auto stamp = [&](Dictionary dictionary) {
    if (userIdValue && !userIdValue->empty())
      dictionary.insert_or_assign("pelora_user_id", *userIdValue);
    if (!playerId.empty()) dictionary.insert_or_assign("app_push_player_id", playerId);
    return dictionary;
  };
  auto identity = convertOrReport(stamp(identityId));
  Dictionary data = eventData;
  setValueForKeyPath(data, std::string("iOS"), "platform");
  auto dataJSON = convertOrReport(data);
  std::optional<std::vector<JSON>> profiles;
  if (profile) {
    profiles.emplace();
    for (const auto& entry : *profile) {
      if (auto converted = convertOrReport(stamp(entry)))
        profiles->push_back(std::move(*converted));
    }
  }
  process(std::optional<MonitorEvent>(std::in_place, identity.value_or(JSON()), eventName,
                                      dataJSON.value_or(JSON()), std::move(profiles)));
}

void PeloraAnalytics::trackMonitorEventJSON(const JSON& value) {
  if (!accepting("trackEvent") || !mayPost()) return;
  try {
    if (!reportIfTooDeep(value)) return;
    process(std::optional(decodeValue<MonitorEvent>(value)));
  } catch (const std::exception& error) {
    platform::printLine(error.what(), LogLevel::info);
  }
}

void PeloraAnalytics::completeEvent(RawEvent& event) const {
  bool known = false;
  store_->read<UserInfo>([&](const UserInfo* user) {
    if (user == nullptr) return;
    known = true;
    event.anonymousId = user->anonymousId;
    event.userId = user->userId;
  });
  if (!known) return;
  event.messageId = platform::uuidString();
  event.timestamp = platform::iso8601Now();
  // Copies share it; one per thread, so that recording threads do not all count references on
  // one shared counter.
  thread_local const JSON emptyObject{JSON::Map{}};
  event.integrations = emptyObject;
  event._metadata = DestinationMetadata{};
}

template <class E>
void PeloraAnalytics::process(std::optional<E>&& event) {
  completeEvent(*event);
  timeline_->deliver(std::move(event));
}

// ---- Plugins ------------------------------------------------------------------------------------

std::shared_ptr<Plugin> PeloraAnalytics::add(std::shared_ptr<Plugin> plugin) {
  plugin->configure(shared_from_this());
  timeline_->add(plugin);
  return plugin;
}

void PeloraAnalytics::remove(const std::shared_ptr<Plugin>& plugin) {
  timeline_->remove(plugin);
}

void PeloraAnalytics::apply(
    const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const {
  timeline_->apply(closure);
}

std::shared_ptr<DestinationPlugin> PeloraAnalytics::find(std::string_view key) const {
  return timeline_->find(key);
}

void PeloraAnalytics::forEachEventPlugin(const std::function<void(EventPlugin&)>& action) const {
  // The timeline's one walk: every stage, and inside each destination its own plugins.
  timeline_->apply([&](const std::shared_ptr<Plugin>& plugin) {
    if (auto eventPlugin = std::dynamic_pointer_cast<EventPlugin>(plugin)) action(*eventPlugin);
  });
}

void PeloraAnalytics::flush() {
  forEachEventPlugin([](EventPlugin& plugin) { plugin.flush(); });
}

void PeloraAnalytics::identify(const std::string& userId, const std::optional<Dictionary>& traits) {
  if (userId.empty()) throw std::invalid_argument("Pelora: identify needs a non-empty user id");
  std::optional<JSON> traitsJSON;
  if (traits) traitsJSON = convertOrReport(*traits);
  store_->dispatch(UserInfo::IdentifyAction{userId, traitsJSON});
  // The suite follows at once, so the identity survives a restart.
  storage_->write(Storage::Key::userId, std::optional<std::string>(userId));
  if (traitsJSON) storage_->write(Storage::Key::traits, traitsJSON);
}

void PeloraAnalytics::reset() {
  store_->dispatch(UserInfo::ResetAction{});
  // The suite follows at once, so a reset survives a restart.
  storage_->write(Storage::Key::userId, std::optional<std::string>());
  storage_->write(Storage::Key::traits, std::optional<JSON>());
  storage_->write(Storage::Key::anonymousId, anonymousId());
  forEachEventPlugin([](EventPlugin& plugin) { plugin.reset(); });
}

void PeloraAnalytics::manuallyEnableDestination(const std::shared_ptr<DestinationPlugin>& plugin) {
  store_->dispatch(System::AddDestinationToSettingsAction{plugin->key()});
}

bool PeloraAnalytics::hasUnsentEvents() const {
  if (auto destination = find<PeloraDestination>()) {
    if (destination->pendingUploads() > 0 || destination->eventCount() > 0) return true;
    if (!destination->deliveryState().backlogEmpty) return true;
  }
  auto files = pendingUploads();
  return files && !files->empty();
}

std::uint64_t PeloraAnalytics::droppedEventCount() const {
  return storage_->droppedEvents();
}

// ---- Lifecycle ----------------------------------------------------------------------------------

bool PeloraAnalytics::postsAndStartupDone() const {
  // Events held until start-up finishes are not even stored yet.
  if (auto startup = find<StartupQueue>()) {
    if (!startup->running() || startup->heldCount() > 0) return false;
  }
  if (auto monitor = find<PeloraMonitorEvent>()) {
    if (monitor->postsInFlight() > 0) return false;
  }
  return true;
}

bool PeloraAnalytics::deliveredAll() const {
  return postsAndStartupDone() && !hasUnsentEvents();
}

bool PeloraAnalytics::flushUntil(Clock::time_point deadline) {
  using namespace std::chrono_literals;
  // Start-up replaying held events moves nothing on: look again at least this often.
  constexpr auto kLookAgain = 100ms;
  auto destination = find<PeloraDestination>();
  storage_->syncEvents();  // on disk before anything else, even when nothing may leave
  // Opted out or waiting for consent: nothing can leave, however long the wait.
  if (!maySend()) return !hasUnsentEvents();
  flush();
  auto mayFlushAt = Clock::now();  // a flush that started nothing is not repeated at once
  for (;;) {
    const std::uint64_t seen = progress_->generation();
    const auto now = Clock::now();
    auto wakeAt = std::min(deadline, now + kLookAgain);
    if (destination) {
      const auto state = destination->deliveryState(now);
      // Only an idle destination with nothing known left lists the directory to make sure.
      bool sent = state.idle && state.backlogEmpty && destination->eventCount() == 0;
      if (sent) {
        const auto files = pendingUploads();
        sent = !files || files->empty();
      }
      if (sent && postsAndStartupDone()) return true;
      if (now >= deadline) return false;
      if (!sent && state.idle) {
        // Nothing changes before the deadline when the service cannot be reached at all, or
        // when the next try is due after it: the batches stay for a later run.
        if (state.unreachable) return false;
        if (state.nextAttempt >= deadline) return false;
        const auto flushAt = std::max(state.nextAttempt, mayFlushAt);
        if (flushAt <= now) {
          destination->flush();
          // Another uploader holding the claim, say: look again a little later.
          if (destination->deliveryState().idle) mayFlushAt = now + kLookAgain;
          continue;
        }
        wakeAt = std::min(wakeAt, flushAt);
      }
    } else {
      if (deliveredAll()) return true;
      if (now >= deadline) return false;
    }
    progress_->waitPast(seen, wakeAt);
  }
}

bool PeloraAnalytics::flush(Clock::time_point deadline) {
  if (shutDown_.load()) return deliveredAll();
  return flushUntil(deadline);
}

void PeloraAnalytics::releasePlugins() {
  std::vector<std::shared_ptr<Plugin>> all;
  timeline_->apply([&](const std::shared_ptr<Plugin>& plugin) { all.push_back(plugin); });
  for (const auto& plugin : all) {
    if (auto destination = std::dynamic_pointer_cast<DestinationPlugin>(plugin)) {
      std::vector<std::shared_ptr<Plugin>> inner;
      destination->apply([&](const std::shared_ptr<Plugin>& p) { inner.push_back(p); });
      for (const auto& p : inner) {
        destination->remove(p);  // shuts it down
        p->setAnalytics(nullptr);
      }
    }
    timeline_->remove(plugin);  // shuts it down
    // The plugin and the client kept each other alive; a host may still hold the plugin.
    plugin->setAnalytics(nullptr);
  }
}

bool PeloraAnalytics::shutdown(Clock::time_point deadline) {
  std::lock_guard lock(shutdownMutex_);
  if (shutdownResult_) return *shutdownResult_;
  shutDown_.store(true);  // from here on nothing new is recorded
  const bool delivered = flushUntil(deadline);
  if (foregroundObserver_) {
    platform::AppLifecycle::shared().removeObserver(*foregroundObserver_);
    foregroundObserver_.reset();
  }
  {
    std::lock_guard lock(privacyMutex_);
    pollMessages(false);
  }
  releasePlugins();
  // Threads that only need to exit get a moment even when the flush used up the deadline.
  const auto threadsDeadline = std::max(deadline, Clock::now() + std::chrono::seconds(2));
  const bool sessionsEnded = platform::waitForEndedSessions(threadsDeadline);
  const bool threadsEnded = platform::stopIdleThreads(threadsDeadline);
  shutdownResult_ = delivered && sessionsEnded && threadsEnded;
  return *shutdownResult_;
}

std::optional<std::vector<std::filesystem::path>> PeloraAnalytics::pendingUploads() const {
  return storage_->finishAndList();
}

void PeloraAnalytics::waitUntilStarted() const {
  auto startup = find<StartupQueue>();
  if (!startup) return;
  // The flag is set by a main-queue task; a caller on the main queue itself would wait forever.
  if (platform::SerialQueue::main()->isCurrent()) return;
  while (!startup->running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// ---- Logging ------------------------------------------------------------------------------------

void PeloraAnalytics::log(std::string_view message, std::optional<LogFilterKind> kind,
                          std::string_view function, int line) {
  if (!platform::log::debugEnabled()) return;
  if (auto logger = timeline_->find<PeloraLog>()) {
    logger->log(message, kind.value_or(LogFilterKind::debug), function, line);
  }
}

void PeloraAnalytics::add(std::shared_ptr<LogTarget> target, LoggingType type) {
  if (auto logger = timeline_->find<PeloraLog>()) logger->add(std::move(target), type);
}

void PeloraAnalytics::logFlush() {
  if (auto logger = timeline_->find<PeloraLog>()) logger->flush();
}

// ---- Push forwards ------------------------------------------------------------------------------

std::optional<NotificationContent> PeloraAnalytics::didReceiveNotificationExtensionRequest(
    const NotificationRequest& request, std::optional<NotificationContent> content,
    std::function<void(const NotificationContent&)> contentHandler) {
  return AppPushManager::didReceiveNotificationExtensionRequest(request, std::move(content),
                                                                std::move(contentHandler));
}

std::optional<NotificationContent> PeloraAnalytics::serviceExtensionTimeWillExpireRequest(
    const NotificationRequest& request, std::optional<NotificationContent> content) {
  return AppPushManager::serviceExtensionTimeWillExpireRequest(request, std::move(content));
}

}  // namespace pelora
