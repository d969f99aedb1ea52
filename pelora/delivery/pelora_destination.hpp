// PeloraDestination: the built-in destination that appends track events to the storage's batch
// files and uploads finished files through HTTPClient. Events arrive on any thread; flushes run on
// the caller's thread or (timer) on the main queue. The upload list lives on its own serial queue.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/plugin/plugin.hpp"
#include "pelora/state/storage.hpp"

namespace pelora {

class DeliveryProgress;
class DeliverySchedule;
class HTTPClient;
struct HTTPResult;

// Final: the timeline runs it on events in place (executeInPlace), around track().
class PELORA_API PeloraDestination final : public DestinationPlugin,
                                           public VersionedPlugin,
                                           public std::enable_shared_from_this<PeloraDestination> {
 public:
  using Clock = std::chrono::steady_clock;

  // One upload in flight: its batch file and its task.
  struct UploadTaskInfo {
    std::filesystem::path batch;
    std::shared_ptr<platform::HttpTask> task;
  };

  // What a flush with a deadline needs to know of the uploads.
  struct DeliveryState {
    bool idle = true;                 // no round of uploads is running
    bool backlogEmpty = true;         // no batch known from the last listing is left undelivered
    bool unreachable = false;         // the last attempt could not reach the service at all
    Clock::time_point nextAttempt{};  // when sending the backlog again may help
  };

  PeloraDestination();
  ~PeloraDestination() override;

  static std::string version();  // the library's
  std::string pluginVersion() const override { return version(); }
  std::string key() const override { return "Pelora.io"; }

  // Takes the client's storage, makes an HTTP client with default key and host, applies the
  // configuration's disk bound and delivery policy, and starts the flush timer (every
  // flushInterval seconds, on the main queue).
  void configure(std::shared_ptr<PluginHost> analytics) override;
  // Uses "apiKey" and "apiHost" under "Pelora.io"; only both together replace the HTTP client.
  void update(const Settings& settings, UpdateType type) override;
  // Appends the event to the current batch file; flushes here once flushAt events are stored.
  std::optional<TrackEvent> track(TrackEvent event) override;
  // execute() without moving the event: it is only read.
  void executeInPlace(std::optional<TrackEvent>& event) override;
  using DestinationPlugin::executeInPlace;
  // Finishes the current batch file and starts a round of uploads of every finished file (a few
  // at a time), unless a round is running. While the last round failed it sends the oldest known
  // batch first instead, and finishes and lists only once that one is delivered.
  void flush() override;
  // Stops the flush timer and cancels uploads in flight (their batches stay for the next run).
  void shutdown() override;
  // Writes events as they are (plugins of its own timeline are asked on their own).
  bool readsEventValues() const override { return false; }

  // Uploads in flight.
  std::size_t pendingUploads() const;
  // Events stored since the last flush.
  std::int64_t eventCount() const { return eventCount_.load(std::memory_order_relaxed); }
  // As of `now`: nextAttempt is at most `now` when sending again may help at once.
  DeliveryState deliveryState(Clock::time_point now = Clock::now()) const;
  // Told of every upload that ends, for a flush with a deadline that waits on it.
  void setProgress(std::shared_ptr<DeliveryProgress> progress);
  std::optional<std::string> apiKey() const;
  std::optional<std::string> apiHost() const;
  std::shared_ptr<HTTPClient> httpClient() const;
  // Asked at the start of every flush whether batches may leave the device (the person's choice,
  // which another client of the key may have changed); no gate lets them.
  void setUploadGate(std::function<bool()> gate);
  // Withheld, no upload starts, and those in flight are cancelled and have ended when this
  // returns (their batches stay); released, flushes upload again.
  void withhold(bool withheld);
  // The stored batches were deleted (Storage::eraseStoredEvents): forgets what it knew of them.
  void forgetStored();

 private:
  enum class Trigger { asked, automatic };
  void flush(Trigger trigger);
  // What track() does: appends `event`; once flushAt events are stored, asks for flushSoon().
  void store(const TrackEvent& event);
  // An automatic flush on flushQueue_: finishing a batch and starting uploads wait for the disk
  // and the network, which a recording thread must never do. Requests coalesce into one flush.
  void flushSoon();
  // The rest run only on uploadsQueue_.
  void startUploads();
  void startUpload(const std::filesystem::path& batch);
  void settle(const std::filesystem::path& batch, const HTTPResult& result);
  void endRound();
  void uploadFinished(const std::filesystem::path& batch, const HTTPResult& result);
  void log(const std::string& message, const char* function, int line) const;

  const std::shared_ptr<platform::SerialQueue> uploadsQueue_;
  const std::shared_ptr<platform::SerialQueue> flushQueue_;
  std::atomic<bool> flushRequested_{false};  // a flushSoon() task is queued and has not begun
  std::atomic<std::int64_t> eventCount_{0};

  // A round of uploads and what is known of the stored batches; touched only on uploadsQueue_.
  struct Round;
  class UploadEnd;
  std::unique_ptr<Round> round_;
  bool shutDown_ = false;  // no upload starts any more
  bool withheld_ = false;  // no upload starts until released

  mutable std::mutex mutex_;  // guards the members below, which configure and update replace
  // The client's storage, kept for upload completions that end after shutdown let the client go
  // (recording reaches it through the client, without this lock).
  std::shared_ptr<Storage> storage_;
  std::shared_ptr<HTTPClient> httpClient_;
  std::shared_ptr<DeliveryProgress> progress_;  // never null
  std::optional<std::string> apiKey_;
  std::optional<std::string> apiHost_;
  std::unique_ptr<QueueTimer> flushTimer_;
  std::function<bool()> uploadGate_;
};

}  // namespace pelora
