#include "pelora/delivery/pelora_monitor_event.hpp"

#include <chrono>

#include "pelora/core/version.hpp"
#include "pelora/delivery/delivery_progress.hpp"
#include "pelora/delivery/http_client.hpp"
#include "pelora/state/configuration.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"

namespace pelora {
namespace {

std::optional<std::string> stringEntry(const std::optional<Dictionary>& entry, const char* name) {
  if (!entry) return std::nullopt;
  auto it = entry->find(name);
  if (it == entry->end()) return std::nullopt;
  if (const auto* text = std::any_cast<std::string>(&it->second)) return *text;
  return std::nullopt;
}

// Counts one post from its start until its completion is released: after it has run, or when the
// HTTP client drops it unsent.
class PostInFlight {
 public:
  PostInFlight(std::shared_ptr<std::atomic<std::size_t>> count,
               std::shared_ptr<DeliveryProgress> progress)
      : count_(std::move(count)), progress_(std::move(progress)) {
    ++*count_;
  }
  ~PostInFlight() {
    --*count_;
    if (progress_) progress_->advance();
  }
  PostInFlight(const PostInFlight&) = delete;
  PostInFlight& operator=(const PostInFlight&) = delete;

 private:
  std::shared_ptr<std::atomic<std::size_t>> count_;
  std::shared_ptr<DeliveryProgress> progress_;
};

}  // namespace

std::string PeloraMonitorEvent::version() {
  return std::string(libraryVersion);
}

PeloraMonitorEvent::PeloraMonitorEvent()
    : timeline_(std::make_shared<Timeline>()),
      postsInFlight_(std::make_shared<std::atomic<std::size_t>>(0)),
      progress_(std::make_shared<DeliveryProgress>()) {}

std::shared_ptr<PluginHost> PeloraMonitorEvent::analytics() const {
  std::lock_guard lock(mutex_);
  return analytics_;
}

void PeloraMonitorEvent::setAnalytics(std::shared_ptr<PluginHost> analytics) {
  std::shared_ptr<HTTPClient> client;
  if (analytics) {
    client = std::make_shared<HTTPClient>(
        analytics->configuration(), std::weak_ptr<LogSink>(analytics), std::nullopt, std::nullopt);
  }
  std::lock_guard lock(mutex_);
  analytics_ = std::move(analytics);
  // Clearing the client keeps the HTTP client, as only an assignment brings a new one.
  if (client) httpClient_ = std::move(client);
}

void PeloraMonitorEvent::setProgress(std::shared_ptr<DeliveryProgress> progress) {
  std::lock_guard lock(mutex_);
  if (progress) progress_ = std::move(progress);
}

void PeloraMonitorEvent::update(const Settings& settings, UpdateType /*type*/) {
  auto entry = settings.integrationSettings("Pelora.io");
  std::lock_guard lock(mutex_);
  apiKey_ = stringEntry(entry, "apiKey");
  apiHost_ = stringEntry(entry, "apiHost");
}

std::optional<MonitorEvent> PeloraMonitorEvent::trackNow(MonitorEvent event) {
  // Under the lock, so that a post cannot start after shutdown has cancelled the client's posts
  // (starting one only hands it to the session's thread).
  std::lock_guard lock(mutex_);
  if (httpClient_ && !withheld_) {
    httpClient_->trackingEventPayload(event.identityId, event.eventName, event.eventData,
                                      event.profile.value_or(std::vector<JSON>{}),
                                      [inFlight = std::make_shared<PostInFlight>(
                                           postsInFlight_, progress_)](const HTTPResult&) {});
  }
  return event;
}

void PeloraMonitorEvent::shutdown() {
  std::shared_ptr<HTTPClient> client;
  std::lock_guard lock(mutex_);
  client = std::move(httpClient_);
  // Posts still in flight end now: no transfer outlives the client's shutdown.
  if (client) client->cancelAll();
}

void PeloraMonitorEvent::withhold(bool withheld) {
  std::shared_ptr<HTTPClient> client;
  std::shared_ptr<DeliveryProgress> progress;
  {
    std::lock_guard lock(mutex_);
    withheld_ = withheld;
    if (withheld) client = httpClient_;
    progress = progress_;
  }
  if (!client) return;
  client->cancelAll();
  // Cancelled posts stop on the session's thread: wait until they have (each one's end moves the
  // progress on).
  progress->waitUntil([&] { return postsInFlight_->load() == 0; },
                      std::chrono::steady_clock::now() + std::chrono::seconds(5));
}

std::shared_ptr<HTTPClient> PeloraMonitorEvent::httpClient() const {
  std::lock_guard lock(mutex_);
  return httpClient_;
}

std::optional<std::string> PeloraMonitorEvent::apiKey() const {
  std::lock_guard lock(mutex_);
  return apiKey_;
}

std::optional<std::string> PeloraMonitorEvent::apiHost() const {
  std::lock_guard lock(mutex_);
  return apiHost_;
}

}  // namespace pelora
