#include "pelora/delivery/pelora_destination.hpp"

#include <algorithm>
#include <deque>
#include <utility>

#include "pelora/core/version.hpp"
#include "pelora/delivery/delivery_progress.hpp"
#include "pelora/delivery/delivery_schedule.hpp"
#include "pelora/delivery/http_client.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/state/configuration.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"

namespace pelora {
namespace {

// Uploads of one round in flight at once: enough to keep the session's two connections busy while
// a completion starts the next, few enough that a backlog of thousands costs no more memory than
// a handful of batches.
constexpr std::size_t kUploadWindow = 4;

// Deletes a sent batch holding the storage lock; one already gone has nothing left to send.
void removeSent(Storage& storage, const std::filesystem::path& file) {
  storage.withLock([&] {
    try {
      storage.remove(file);
    } catch (const std::exception&) {
    }
  });
}

bool isServiceFailure(UploadOutcome outcome) {
  return outcome == UploadOutcome::unreachable || outcome == UploadOutcome::retryLater;
}

}  // namespace

// A round of uploads and what is known of the stored batches. Only on the uploads queue.
struct PeloraDestination::Round {
  DeliverySchedule schedule{std::nullopt};
  // Finished batches from the last listing that are not delivered yet, oldest first: what a flush
  // sends while the service fails, without listing the directory again.
  std::deque<std::filesystem::path> backlog;
  std::vector<std::filesystem::path> deferred;  // this round's batches left for a later one
  std::vector<UploadTaskInfo> uploads;          // in flight
  // Completions that ran inside their own start (the upload could not even begin).
  std::vector<std::pair<std::filesystem::path, HTTPResult>> immediate;
  std::shared_ptr<UploadClaim> claim;  // held while the round runs
  std::shared_ptr<HTTPClient> http;
  std::shared_ptr<Storage> storage;
  std::shared_ptr<DeliveryProgress> progress;
  bool running = false;
  bool stopped = false;  // a failure ended it: nothing more starts
  bool failed = false;   // it left batches behind
  bool probing = false;  // one batch at a time until one is delivered
  // A probe was delivered: once the known batches are sent, the round finishes the open batch and
  // lists again, so that one flush delivers everything once the service is back.
  bool relist = false;
};

// Reports an upload as ended if its completion is dropped without being run, so that the round
// it belongs to still ends.
class PeloraDestination::UploadEnd {
 public:
  UploadEnd(std::weak_ptr<PeloraDestination> destination, std::shared_ptr<Storage> storage,
            std::filesystem::path batch, std::shared_ptr<UploadClaim> claim)
      : destination_(std::move(destination)),
        storage_(std::move(storage)),
        batch_(std::move(batch)),
        claim_(std::move(claim)) {}
  ~UploadEnd() {
    if (!ended_) {
      end(HTTPResult{platform::HttpError{platform::HttpError::Code::cancelled,
                                         "The upload was dropped unfinished", 0}});
    }
  }
  UploadEnd(const UploadEnd&) = delete;
  UploadEnd& operator=(const UploadEnd&) = delete;

  void end(const HTTPResult& result) noexcept {
    ended_ = true;
    try {
      if (auto destination = destination_.lock()) {
        destination->uploadFinished(batch_, result);
      } else {
        if (result.succeeded()) removeSent(*storage_, batch_);
        storage_->markSending(batch_, false);
      }
    } catch (const std::exception&) {
      // out of memory on the worker: the batch stays and goes with a later round
    }
    claim_.reset();  // the file is dealt with: other uploaders may go
  }

 private:
  std::weak_ptr<PeloraDestination> destination_;
  std::shared_ptr<Storage> storage_;
  std::filesystem::path batch_;
  std::shared_ptr<UploadClaim> claim_;
  bool ended_ = false;
};

PeloraDestination::PeloraDestination()
    : uploadsQueue_(
          platform::SerialQueue::create("uploadsQueue." + std::string(platform::queueLabelSuffix))),
      flushQueue_(
          platform::SerialQueue::create("flushQueue." + std::string(platform::queueLabelSuffix))),
      round_(std::make_unique<Round>()),
      progress_(std::make_shared<DeliveryProgress>()) {}

PeloraDestination::~PeloraDestination() = default;

std::string PeloraDestination::version() {
  return std::string(libraryVersion);
}

void PeloraDestination::configure(std::shared_ptr<PluginHost> analytics) {
  DestinationPlugin::configure(analytics);
  if (!analytics) return;
  auto configuration = analytics->configuration();
  const auto& values = configuration->values;
  auto client = std::make_shared<HTTPClient>(configuration, std::weak_ptr<LogSink>(analytics),
                                             std::nullopt, std::nullopt);
  // The timer lives inside this object, so it must not keep it alive.
  std::weak_ptr<PeloraDestination> weak = weak_from_this();
  auto timer =
      std::make_unique<QueueTimer>(values.flushInterval, platform::SerialQueue::main(), [weak] {
        if (auto self = weak.lock()) self->flush(Trigger::automatic);
      });
  auto storage = analytics->storage();
  if (storage) {
    const double age = values.maxBatchAge;
    const auto maxAge = age >= 1 && age < 1e12
                            ? std::chrono::seconds(static_cast<std::int64_t>(age))
                            : std::chrono::seconds(0);
    storage->setLimits(values.maxStoredBytes, maxAge);
  }
  uploadsQueue_->sync([&] { round_->schedule = DeliverySchedule(values.deliveryPolicy); });
  std::unique_ptr<QueueTimer> previous;
  {
    std::lock_guard lock(mutex_);
    storage_ = std::move(storage);
    httpClient_ = std::move(client);
    previous = std::move(flushTimer_);
    flushTimer_ = std::move(timer);
  }
}

void PeloraDestination::setProgress(std::shared_ptr<DeliveryProgress> progress) {
  std::lock_guard lock(mutex_);
  if (progress) progress_ = std::move(progress);
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
    for (const auto& info : round_->uploads) {
      if (info.task) running.push_back(info.task);
    }
  });
  for (const auto& task : running) task->cancel();
  if (client) client->cancelAll();
}

void PeloraDestination::setUploadGate(std::function<bool()> gate) {
  std::lock_guard lock(mutex_);
  uploadGate_ = std::move(gate);
}

void PeloraDestination::withhold(bool withheld) {
  std::vector<std::shared_ptr<platform::HttpTask>> running;
  std::shared_ptr<DeliveryProgress> progress;
  {
    std::lock_guard lock(mutex_);
    progress = progress_;
  }
  uploadsQueue_->sync([&] {
    withheld_ = withheld;
    if (!withheld) return;
    for (const auto& info : round_->uploads) {
      if (info.task) running.push_back(info.task);
    }
  });
  for (const auto& task : running) task->cancel();
  // A cancelled transfer stops on the session's thread: wait until it has, so that no byte of it
  // leaves after this returns. Its completion (uploadFinished) moves the progress on.
  progress->waitUntil(
      [&] {
        return std::all_of(running.begin(), running.end(), [](const auto& task) {
          return task->state() == platform::HttpTask::State::completed;
        });
      },
      Clock::now() + std::chrono::seconds(5));
}

void PeloraDestination::forgetStored() {
  eventCount_.store(0, std::memory_order_relaxed);
  uploadsQueue_->sync([&] {
    round_->backlog.clear();
    round_->deferred.clear();
  });
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
  storage->write(Storage::Key::events, event);
  const std::int64_t count = eventCount_.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count >= client->configuration()->values.flushAt) flushSoon();
}

void PeloraDestination::flushSoon() {
  if (flushRequested_.exchange(true, std::memory_order_acq_rel)) return;
  std::weak_ptr<PeloraDestination> weak = weak_from_this();
  flushQueue_->async([weak] {
    auto self = weak.lock();
    if (!self) return;
    // Cleared before the flush: events stored while it runs ask for the next one.
    self->flushRequested_.store(false, std::memory_order_release);
    self->flush(Trigger::automatic);
  });
}

void PeloraDestination::flush() {
  flush(Trigger::asked);
}

void PeloraDestination::flush(Trigger trigger) {
  auto client = analytics();
  std::shared_ptr<Storage> storage;
  std::shared_ptr<HTTPClient> http;
  std::shared_ptr<DeliveryProgress> progress;
  {
    std::lock_guard lock(mutex_);
    storage = storage_;
    http = httpClient_;
    progress = progress_;
  }
  if (!client || !storage || !http) return;
  eventCount_.store(0, std::memory_order_relaxed);
  std::function<bool()> gate;
  {
    std::lock_guard lock(mutex_);
    gate = uploadGate_;
  }
  if (gate && !gate()) return;

  // While the service fails, the oldest known batch goes alone (a probe): no batch is finished and
  // the directory is not listed until it is delivered, so recording offline costs the same
  // however many batches wait.
  enum class Step { skip, probe, list };
  const auto now = Clock::now();
  const Step step = uploadsQueue_->sync([&] {
    if (shutDown_ || withheld_) return Step::skip;  // a flush that raced shutdown starts nothing
    log("Uploads in-progress: " + std::to_string(round_->uploads.size()), "flush()", __LINE__);
    if (round_->running) {
      log("Skipping processing; Uploads in progress.", "flush()", __LINE__);
      return Step::skip;
    }
    if (trigger == Trigger::automatic && !round_->schedule.automaticFlushAllowed(now)) {
      log("Skipping processing; the service cannot be reached yet.", "flush()", __LINE__);
      return Step::skip;
    }
    return round_->schedule.failing() && !round_->backlog.empty() ? Step::probe : Step::list;
  });
  if (step == Step::skip) return;
  std::optional<std::vector<std::filesystem::path>> files;
  if (step == Step::list) {
    files = storage->finishAndList();
  }

  // The check for a running round and the start of a new one are one step on the uploads queue,
  // so that two flushes at once cannot both send the same files.
  uploadsQueue_->sync([&] {
    auto& round = *round_;
    if (shutDown_ || round.running) return;
    // Another client of this write key, here or in another process, may be uploading the same
    // files: one uploader at a time. It holds the claim until its sent files are deleted, so the
    // files still here once the claim is ours are the ones to send.
    auto claim = storage->claimUploads();
    if (!claim) {
      log("Skipping processing; Uploads in progress.", "flush()", __LINE__);
      return;
    }
    if (files) {
      round.backlog.assign(std::make_move_iterator(files->begin()),
                           std::make_move_iterator(files->end()));
      round.schedule.keepOnly(round.backlog);
    }
    round.claim = std::make_shared<UploadClaim>(std::move(claim));
    round.http = http;
    round.storage = storage;
    round.progress = progress;
    round.running = true;
    round.stopped = false;
    round.failed = false;
    round.probing = step == Step::probe;
    round.relist = false;
    startUploads();
  });
}

void PeloraDestination::startUploads() {
  auto& round = *round_;
  const auto now = Clock::now();
  while (round.running && !shutDown_ && !withheld_ && !round.stopped && !round.backlog.empty() &&
         round.uploads.size() < (round.probing ? 1 : kUploadWindow)) {
    std::filesystem::path batch = std::move(round.backlog.front());
    round.backlog.pop_front();
    if (!round.schedule.mayAttempt(batch.native(), now)) {
      round.deferred.push_back(std::move(batch));
      round.failed = true;  // it waits out its backoff: the round leaves it behind
      continue;
    }
    std::error_code error;
    if (!std::filesystem::exists(batch, error) && !error) continue;  // sent or dropped meanwhile
    log("Processing Batch:\n" + batch.filename().string(), "flush()", __LINE__);
    startUpload(batch);
    // An upload that could not even start has ended already.
    auto ended = std::exchange(round.immediate, {});
    for (const auto& [file, result] : ended) settle(file, result);
  }
  if (round.running && round.uploads.empty() && round.backlog.empty() && round.relist &&
      !round.stopped && !shutDown_ && !withheld_) {
    round.relist = false;
    auto files = round.storage->finishAndList();
    round.backlog.assign(std::make_move_iterator(files.begin()),
                         std::make_move_iterator(files.end()));
    startUploads();
    return;
  }
  if (round.running && round.uploads.empty()) endRound();
}

void PeloraDestination::startUpload(const std::filesystem::path& batch) {
  auto& round = *round_;
  round.storage->markSending(batch, true);
  // Each upload holds the claim too, until its file is dealt with, should the destination go
  // away meanwhile.
  auto end = std::make_shared<UploadEnd>(weak_from_this(), round.storage, batch, round.claim);
  auto task =
      round.http->startBatchUpload(batch, [end](const HTTPResult& result) { end->end(result); });
  if (task) round.uploads.push_back(UploadTaskInfo{batch, std::move(task)});
}

// Runs on the HTTP session's worker (or inside startUploads when the upload could not start); it
// takes the storage lock and the uploads queue in turn, never holding one while waiting for the
// other.
void PeloraDestination::uploadFinished(const std::filesystem::path& batch,
                                       const HTTPResult& result) {
  std::shared_ptr<Storage> storage;
  std::shared_ptr<DeliveryProgress> progress;
  {
    std::lock_guard lock(mutex_);
    storage = storage_;
    progress = progress_;
  }
  if (storage) {
    if (result.succeeded()) removeSent(*storage, batch);
    storage->markSending(batch, false);
  }
  if (!result.succeeded()) {
    if (auto client = analytics()) client->logFlush();
  }
  if (uploadsQueue_->isCurrent()) {
    round_->immediate.emplace_back(batch, result);
  } else {
    uploadsQueue_->sync([&] {
      settle(batch, result);
      startUploads();
    });
  }
  log("Processed: " + batch.filename().string(), "flush()", __LINE__);
  if (progress) progress->advance();
}

void PeloraDestination::settle(const std::filesystem::path& batch, const HTTPResult& result) {
  auto& round = *round_;
  const auto it = std::find_if(round.uploads.begin(), round.uploads.end(),
                               [&](const auto& info) { return info.batch == batch; });
  if (it != round.uploads.end()) {
    round.uploads.erase(it);
    log("Cleaned up 1 non-running uploads.", "cleanupUploads()", __LINE__);
  }
  const UploadOutcome outcome = classifyUpload(result);
  auto keep = [&] {
    round.deferred.push_back(batch);
    round.failed = true;
  };
  switch (round.schedule.record(batch.native(), outcome, result.retryAfter, Clock::now())) {
    case DeliverySchedule::Action::forget:
      break;
    case DeliverySchedule::Action::keep:
      keep();
      break;
    case DeliverySchedule::Action::split:
      if (auto halves = round.storage->splitBatch(batch)) {
        // The halves go next, in the order their events were recorded.
        round.backlog.push_front(std::move(halves->second));
        round.backlog.push_front(std::move(halves->first));
        break;
      }
      [[fallthrough]];  // a single event the service still finds too large
    case DeliverySchedule::Action::setAside:
      if (round.storage->setAsideRefused(batch)) {
        platform::printLine("Pelora: the service refuses batch " + batch.filename().string() +
                                "; it is kept aside and not sent again",
                            LogLevel::warning);
      } else {
        keep();
      }
      break;
  }
  if (outcome == UploadOutcome::delivered) {
    if (round.probing) round.relist = true;
    round.probing = false;  // the service is back: the rest of the backlog may go
  } else if (isServiceFailure(outcome) && (round.probing || round.schedule.endsRound(outcome))) {
    round.stopped = true;
  }
}

void PeloraDestination::endRound() {
  auto& round = *round_;
  round.running = false;
  // What this round left goes first next time, in its order.
  round.backlog.insert(round.backlog.begin(), std::make_move_iterator(round.deferred.begin()),
                       std::make_move_iterator(round.deferred.end()));
  round.deferred.clear();
  round.schedule.roundEnded(round.failed, Clock::now());
  round.claim.reset();  // every upload of the round has dealt with its file: others may upload
  round.http.reset();
  round.probing = false;
}

PeloraDestination::DeliveryState PeloraDestination::deliveryState(Clock::time_point now) const {
  return uploadsQueue_->sync([&] {
    DeliveryState state;
    state.idle = !round_->running;
    state.backlogEmpty = round_->backlog.empty();
    state.unreachable = round_->schedule.unreachable();
    state.nextAttempt = round_->schedule.nextAttempt(now, round_->backlog);
    return state;
  });
}

std::size_t PeloraDestination::pendingUploads() const {
  return uploadsQueue_->sync([&] { return round_->uploads.size(); });
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
