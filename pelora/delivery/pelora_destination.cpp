#include "pelora/delivery/pelora_destination.hpp"

#include <algorithm>

#include "pelora/delivery/http_client.hpp"
#include "pelora/state/configuration.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"

namespace pelora {
namespace {

// Marks an upload handled when its completion goes away, in case it goes away without being run.
struct HandledWhenDropped {
  std::shared_ptr<std::atomic<bool>> handled;
  ~HandledWhenDropped() { *handled = true; }
};

// Deletes a sent batch on the storage queue; one already gone has nothing left to send.
void removeSent(Storage& storage, const std::filesystem::path& file) {
  storage.sync([&] {
    try {
      storage.remove(file);
    } catch (const std::exception&) {
    }
  });
}

bool isInFlight(const PeloraDestination::UploadTaskInfo& info) {
  return info.task &&
         (info.task->state() == platform::HttpTask::State::running || !info.handled->load());
}

}  // namespace

PeloraDestination::PeloraDestination()
    : uploadsQueue_(platform::SerialQueue::create("uploadsQueue." +
                                                  std::string(platform::queueLabelSuffix))) {}

PeloraDestination::~PeloraDestination() = default;

void PeloraDestination::configure(std::shared_ptr<PluginHost> analytics) {
  DestinationPlugin::configure(analytics);
  if (!analytics) return;
  auto configuration = analytics->configuration();
  auto client = std::make_shared<HTTPClient>(configuration, std::weak_ptr<LogSink>(analytics),
                                             std::nullopt, std::nullopt);
  // The timer lives inside this object, so it must not keep it alive.
  std::weak_ptr<PeloraDestination> weak = weak_from_this();
  auto timer = std::make_unique<QueueTimer>(configuration->values.flushInterval,
                                            platform::SerialQueue::main(), [weak] {
                                              if (auto self = weak.lock()) self->flush();
                                            });
  std::unique_ptr<QueueTimer> previous;
  {
    std::lock_guard lock(mutex_);
    storage_ = analytics->storage();
    httpClient_ = std::move(client);
    previous = std::move(flushTimer_);
    flushTimer_ = std::move(timer);
  }
}

void PeloraDestination::shutdown() {
  std::unique_ptr<QueueTimer> timer;
  std::shared_ptr<HTTPClient> client;
  {
    std::lock_guard lock(mutex_);
    timer = std::move(flushTimer_);
    client = std::move(httpClient_);
  }
  // Released unlocked: stopping the timer may wait for a firing that takes mutex_.
  timer.reset();
  // Uploads still in flight end now (their batches stay for the next run), including those of an
  // HTTP client that settings replaced: no transfer outlives the client's shutdown.
  std::vector<std::shared_ptr<platform::HttpTask>> running;
  uploadsQueue_->sync([&] {
    shutDown_ = true;
    for (const auto& info : uploads_) {
      if (info.task) running.push_back(info.task);
    }
  });
  for (const auto& task : running) task->cancel();
  if (client) client->cancelAll();
}

void PeloraDestination::update(const Settings& settings, UpdateType /*type*/) {
  std::optional<std::string> key;
  std::optional<std::string> host;
  if (auto entry = settings.integrationSettings(this->key())) {
    auto stringEntry = [&](const char* name) -> std::optional<std::string> {
      auto it = entry->find(name);
      if (it == entry->end()) return std::nullopt;
      if (const auto* text = std::any_cast<std::string>(&it->second)) return *text;
      return std::nullopt;
    };
    key = stringEntry("apiKey");
    host = stringEntry("apiHost");
  }
  auto client = analytics();
  std::shared_ptr<HTTPClient> replacement;
  if (key && host && client) {
    replacement = std::make_shared<HTTPClient>(client->configuration(),
                                               std::weak_ptr<LogSink>(client), key, host);
  }
  std::lock_guard lock(mutex_);
  apiKey_ = std::move(key);
  apiHost_ = std::move(host);
  if (replacement) httpClient_ = std::move(replacement);
}

std::optional<TrackEvent> PeloraDestination::track(TrackEvent event) {
  store(event);
  return event;
}

void PeloraDestination::executeInPlace(std::optional<TrackEvent>& event) {
  if (!runStagesBeforeTrack(event)) {
    event.reset();
    return;
  }
  store(*event);
  runStagesAfterTrack(event);
}

void PeloraDestination::store(const TrackEvent& event) {
  // No copies of shared pointers here: every recording thread would count references on the
  // same counters. The client keeps its storage for as long as it lives, and this plugin keeps
  // the client until it is shut down.
  const auto& client = keptAnalytics();
  if (!client) return;
  const auto& storage = client->storage();
  if (!storage) return;
  storage->write(Storage::Constants::events, event);
  const std::int64_t count = eventCount_.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count >= client->configuration()->values.flushAt) flush();
}

void PeloraDestination::flush() {
  auto client = analytics();
  std::shared_ptr<Storage> storage;
  std::shared_ptr<HTTPClient> http;
  std::optional<std::string> key;
  {
    std::lock_guard lock(mutex_);
    storage = storage_;
    http = httpClient_;
    key = apiKey_;
  }
  if (!client || !storage || !http) return;

  auto files = storage->read<std::vector<std::filesystem::path>>(Storage::Constants::events);
  if (!files) return;
  eventCount_.store(0, std::memory_order_relaxed);

  const std::string writeKey = key.value_or(client->configuration()->values.writeKey);
  std::weak_ptr<PeloraDestination> weak = weak_from_this();
  // The check for running uploads and the start of new ones are one step on the uploads queue, so
  // that two flushes at once cannot both find nothing running and both send the same files.
  // Completions that arrive meanwhile wait for it and find their entries.
  uploadsQueue_->sync([&] {
    if (shutDown_) return;  // a flush that raced shutdown starts nothing it would not cancel
    cleanupUploads();
    log("Uploads in-progress: " + std::to_string(uploads_.size()), "flush()", __LINE__);
    if (!uploads_.empty()) {
      log("Skipping processing; Uploads in progress.", "flush()", __LINE__);
      return;
    }
    // Another client of this write key, here or in another process, may be uploading the same
    // files: one uploader at a time. It holds the claim until its sent files are deleted, so the
    // files still here once the claim is ours are the ones to send.
    auto claim = std::make_shared<UploadClaim>(storage->claimUploads());
    if (!*claim) {
      log("Skipping processing; Uploads in progress.", "flush()", __LINE__);
      return;
    }
    uploadClaim_ = claim;
    for (const auto& file : *files) {
      std::error_code error;
      if (!std::filesystem::exists(file, error) && !error) continue;
      log("Processing Batch:\n" + file.filename().string(), "flush()", __LINE__);
      UploadTaskInfo info{file, nullptr, {}};
      auto mark = std::make_shared<HandledWhenDropped>(HandledWhenDropped{info.handled});
      // Each upload holds the claim too, until its file is dealt with, should the destination go
      // away meanwhile.
      info.task = http->startBatchUpload(
          writeKey, file, [weak, storage, file, mark, claim](const HTTPResult& result) mutable {
            if (auto self = weak.lock()) {
              self->uploadFinished(file, result.succeeded(), claim, *mark->handled);
            } else if (result.succeeded()) {
              removeSent(*storage, file);
            }
            claim.reset();
          });
      if (info.task) uploads_.push_back(std::move(info));
    }
    if (uploads_.empty()) uploadClaim_.reset();
  });
}

// Runs on the HTTP session's worker; it hops to the storage queue and the uploads queue in turn,
// never holding one while waiting for the other.
void PeloraDestination::uploadFinished(const std::filesystem::path& file, bool succeeded,
                                       std::shared_ptr<UploadClaim>& claim,
                                       std::atomic<bool>& handled) {
  auto client = analytics();
  std::shared_ptr<Storage> storage;
  {
    std::lock_guard lock(mutex_);
    storage = storage_;
  }
  if (succeeded) {
    if (storage) removeSent(*storage, file);
    claim.reset();  // the last one goes with the cleanup that empties the upload list
    handled = true;
    cleanupOnUploadsQueue();
  } else {
    claim.reset();
    handled = true;
    if (client) client->logFlush();
  }
  log("Processed: " + file.filename().string(), "flush()", __LINE__);
  cleanupOnUploadsQueue();
}

void PeloraDestination::cleanupOnUploadsQueue() {
  // An upload that cannot even start completes at once, inside flush's step on the queue.
  if (uploadsQueue_->isCurrent()) {
    cleanupUploads();
  } else {
    uploadsQueue_->sync([&] { cleanupUploads(); });
  }
}

void PeloraDestination::cleanupUploads() {
  std::vector<UploadTaskInfo> removed;
  auto running = std::stable_partition(uploads_.begin(), uploads_.end(),
                                       [](const auto& info) { return isInFlight(info); });
  std::move(running, uploads_.end(), std::back_inserter(removed));
  uploads_.erase(running, uploads_.end());
  for (auto& info : removed) {
    if (info.cleanup) info.cleanup();
  }
  // Every upload of the last flush has dealt with its file: others may upload now.
  if (uploads_.empty()) uploadClaim_.reset();
  if (analytics()) {
    log("Cleaned up " + std::to_string(removed.size()) + " non-running uploads.",
        "cleanupUploads()", __LINE__);
  }
}

std::size_t PeloraDestination::pendingUploads() const {
  return uploadsQueue_->sync([&] { return uploads_.size(); });
}

std::optional<std::string> PeloraDestination::apiKey() const {
  std::lock_guard lock(mutex_);
  return apiKey_;
}

std::optional<std::string> PeloraDestination::apiHost() const {
  std::lock_guard lock(mutex_);
  return apiHost_;
}

std::shared_ptr<HTTPClient> PeloraDestination::httpClient() const {
  std::lock_guard lock(mutex_);
  return httpClient_;
}

void PeloraDestination::log(const std::string& message, const char* function, int line) const {
  if (auto client = analytics()) client->log(message, LogFilterKind::debug, function, line);
}

}  // namespace pelora
