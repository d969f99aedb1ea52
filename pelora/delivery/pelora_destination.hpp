// PeloraDestination: the built-in destination that appends track events to the storage's batch
// files and uploads finished files through HTTPClient. Events arrive on any thread; flushes run on
// the caller's thread or (timer) on the main queue. The upload list lives on its own serial queue.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/export.hpp"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/plugin/plugin.hpp"
#include "pelora/state/storage.hpp"

namespace pelora {

class HTTPClient;

// Final: the timeline runs it on events in place (executeInPlace), around track().
class PELORA_API PeloraDestination final : public DestinationPlugin,
                                           public VersionedPlugin,
                                           public std::enable_shared_from_this<PeloraDestination> {
 public:
  // One started upload: the batch file, its task, and what to run when the entry is dropped.
  struct UploadTaskInfo {
    std::filesystem::path url;
    std::shared_ptr<platform::HttpTask> task;
    std::function<void()> cleanup;
    // Set once the completion has dealt with the file. A task leaves the running state just before
    // its completion runs; until the file is deleted the entry must still count as in flight, or
    // a flush in between would send the batch again.
    std::shared_ptr<std::atomic<bool>> handled = std::make_shared<std::atomic<bool>>(false);
  };

  PeloraDestination();
  ~PeloraDestination() override;

  static std::string version() { return "1.0.0"; }
  std::string pluginVersion() const override { return version(); }
  std::string key() const override { return "Pelora.io"; }

  // Takes the client's storage, makes an HTTP client with default key and host and starts the
  // flush timer (every flushInterval seconds, on the main queue).
  void configure(std::shared_ptr<PluginHost> analytics) override;
  // Uses "apiKey" and "apiHost" under "Pelora.io"; only both together replace the HTTP client.
  void update(const Settings& settings, UpdateType type) override;
  // Appends the event to the current batch file; flushes here once flushAt events are stored.
  std::optional<TrackEvent> track(TrackEvent event) override;
  // execute() without moving the event: it is only read.
  void executeInPlace(std::optional<TrackEvent>& event) override;
  using DestinationPlugin::executeInPlace;
  // Finishes the current batch file and uploads every finished file, unless uploads are running.
  void flush() override;
  // Stops the flush timer and lets the HTTP client go (uploads in flight still finish).
  void shutdown() override;
  // Writes events as they are (plugins of its own timeline are asked on their own).
  bool readsEventValues() const override { return false; }

  // Upload entries not yet cleaned up.
  std::size_t pendingUploads() const;
  // Events stored since the last flush.
  std::int64_t eventCount() const { return eventCount_.load(std::memory_order_relaxed); }
  std::optional<std::string> apiKey() const;
  std::optional<std::string> apiHost() const;
  std::shared_ptr<HTTPClient> httpClient() const;

 private:
  // What track() does: appends `event`, flushes once flushAt events are stored.
  void store(const TrackEvent& event);
  // Only on uploadsQueue_.
  void cleanupUploads();
  void cleanupOnUploadsQueue();
  void uploadFinished(const std::filesystem::path& file, bool succeeded,
                      std::shared_ptr<UploadClaim>& claim, std::atomic<bool>& handled);
  void log(const std::string& message, const char* function, int line) const;

  const std::shared_ptr<platform::SerialQueue> uploadsQueue_;
  std::vector<UploadTaskInfo> uploads_;  // touched only on uploadsQueue_
  // Held while uploads_ is not empty (and by each upload until it has dealt with its file).
  std::shared_ptr<UploadClaim> uploadClaim_;  // on uploadsQueue_
  bool shutDown_ = false;                     // on uploadsQueue_: no upload starts any more
  std::atomic<std::int64_t> eventCount_{0};

  mutable std::mutex mutex_;  // guards the members below, which configure and update replace
  // The client's storage, kept for upload completions that end after shutdown let the client go
  // (recording reaches it through the client, without this lock).
  std::shared_ptr<Storage> storage_;
  std::shared_ptr<HTTPClient> httpClient_;
  std::optional<std::string> apiKey_;
  std::optional<std::string> apiHost_;
  std::unique_ptr<QueueTimer> flushTimer_;
};

}  // namespace pelora
