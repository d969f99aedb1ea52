// Storage: the client's only persistence. Identity, traits and settings live in the user-defaults
// suite "com.pelora.storage.<write key>"; events are appended to numbered batch files under
// <documents>/pelora/<write key>/. Callable from any thread: every file and suite access takes the
// storage lock, which guards the open batch file and the suite.
//
// Recording an event copies it into a journal in shared memory that outlives the process (see
// EventJournal) and returns; a background writer appends what the journal holds to the batch
// files and syncs them within the sync window. With syncEveryEvent each write appends and syncs
// its own event before it returns instead.
//
// Other storages on the same key (in this process or another) may share the directory: each
// writes only to a batch it holds an flock on, and repairs and finishes what crashed ones left,
// their journals included.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "pelora/core/events.hpp"
#include "pelora/core/export.h"
#include "pelora/core/json.hpp"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/paths.hpp"

namespace pelora {

class Store;

// The right to upload a write key's finished batches: while one uploader (a client of this
// process or of another) holds it, no other one sends any, so no batch goes out twice at once.
// Hold it from before checking which listed files still exist until every upload it started has
// deleted its sent file. Releasing it (or destroying it) lets others upload.
class PELORA_API UploadClaim {
 public:
  UploadClaim() noexcept = default;
  ~UploadClaim() { release(); }
  UploadClaim(UploadClaim&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UploadClaim& operator=(UploadClaim&& other) noexcept {
    if (this != &other) {
      release();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UploadClaim(const UploadClaim&) = delete;
  UploadClaim& operator=(const UploadClaim&) = delete;

  explicit operator bool() const noexcept { return fd_ >= 0; }
  void release() noexcept;

 private:
  friend class Storage;
  explicit UploadClaim(int fd) noexcept : fd_(fd) {}
  int fd_ = -1;
};

class PELORA_API Storage : public std::enable_shared_from_this<Storage> {
 public:
  // The storage keys; rawValue() gives each one's suite key. `events` names the batch files.
  // optedOut and consent hold the person's choice about tracking (see PeloraAnalytics::optOut).
  enum class Key { userId, traits, anonymousId, settings, events, optedOut, consent };

  // How recorded events reach the disk.
  struct Durability {
    // Each event is written and synced before write() returns (slower, nothing to recover).
    bool syncEveryEvent = false;
    // Otherwise events are synced at most this long after write() returned.
    std::chrono::milliseconds syncWindow{100};
  };

  // Keeps `store` and `writeKey`, opens the suite and makes the event journal; touches no event
  // file. Empty members of `paths` take their defaults.
  static std::shared_ptr<Storage> create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths, Durability durability);
  static std::shared_ptr<Storage> create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths) {
    return create(std::move(store), std::move(writeKey), std::move(paths), Durability{});
  }
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  const std::shared_ptr<Store>& store() const noexcept { return store_; }
  const std::string& writeKey() const noexcept { return writeKey_; }

  // events: `value` (a TrackEvent or MonitorEvent) is recorded for the current batch file; any
  // other type is ignored. Other keys: `value` is stored as JSON and the suite is written out;
  // an empty optional removes the key. Never throws; failures lose the value quietly.
  template <class T>
  void write(Key key, const T& value);

  // The stored value of `key` (not events) decoded as T; nothing when absent or not decodable.
  // Never throws.
  template <class T>
  std::optional<T> read(Key key);

  // Writes out every recorded event, finishes the current batch file (closing text, sync, rename
  // to "*.temp"), does the same for batches that crashed writers left, and lists the finished
  // batches in lexical order. Empty when the directory cannot be listed. Never throws.
  std::vector<std::filesystem::path> finishAndList() noexcept;
  // Writes out every recorded event and syncs it; returns once it is on disk (as far as
  // fdatasync can tell).
  void syncEvents() noexcept;
  // For tests that simulate a power cut: called after each background sync with the batch file
  // and how many of its bytes the sync covered. Set it before recording.
  void setSyncObserver(std::function<void(const std::filesystem::path&, std::uint64_t)> observer);

  // Deletes a finished batch file. Throws std::filesystem::filesystem_error when that fails
  // (a missing file included). Does not take the storage lock, so it may run inside withLock().
  void remove(const std::filesystem::path& file);
  // Claims the right to upload (see UploadClaim); an empty claim while another uploader holds
  // it. Does not take the storage lock.
  UploadClaim claimUploads() const;

  // Runs `block` holding the storage lock and returns its result.
  template <class F>
  auto withLock(F&& block) {
    return lock_.sync(std::forward<F>(block));
  }

  // Reads the suite again for what other clients of the write key stored since.
  void reloadSuite();
  // Refusing, events given to write() are dropped unwritten (the person opted out). Events
  // recorded before the call are written out first.
  void refuseEvents(bool refuse);
  // Deletes every batch of the write key, open or finished, set aside or being uploaded, of any
  // writer, and the events recorded but not written yet; returns how many files went. The next
  // event starts a new batch.
  std::size_t eraseStoredEvents();

  // <documents>/pelora/<write key as one file name>, created when missing.
  std::filesystem::path eventsDirectory() const;

  // The disk bound: once the stored batches (finished, set aside as refused, and open ones of
  // every writer) would pass `maxBytes`, the oldest finished ones are deleted; finished batches
  // older than `maxAge` are deleted too. 0 turns either off. Neither touches an open batch or one
  // being uploaded. Every deleted event is counted and logged once per episode, which a delivered
  // batch ends.
  void setLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge);
  // Events the disk bound deleted since this storage was made. Writes out what was recorded
  // first, so that the count covers every event recorded before the call.
  std::uint64_t droppedEvents() noexcept;
  // Marks a finished batch as being uploaded (the disk bound leaves it alone) or no longer.
  void markSending(const std::filesystem::path& file, bool sending);

  // Replaces a finished batch by two finished batches holding its first and second halves of
  // events, named so that they sort where it did; returns them. Nothing changes (and nothing is
  // returned) when it holds fewer than two events or cannot be read or written.
  std::optional<std::pair<std::filesystem::path, std::filesystem::path>> splitBatch(
      const std::filesystem::path& file);
  // Renames a finished batch to "<name>.refused": kept for a person to look at, never listed for
  // upload again, deleted by the disk bound. False when it could not be renamed.
  bool setAsideRefused(const std::filesystem::path& file);

 private:
  struct State;
  using AppendText = void (*)(std::string& out, const void* value);

  Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths,
          Durability durability);

  void writeEvent(AppendText appendText, const void* event) noexcept;
  // Appends `text` ("," + an event) to the batch and waits for its sync.
  void appendAndSync(const std::string& text) noexcept;
  void writeValue(Key key, std::optional<JSON> value) noexcept;
  std::optional<JSON> readValue(Key key) noexcept;

  // The background writer: a drain round writes out what the journal holds, a sync round syncs
  // it. Both run on queues of their own, so that a slow sync never holds up draining.
  // Appends what the journal holds to the batches (taking the lock, or holding it already).
  void writeOutJournal() noexcept;
  void writeOutJournalLocked() noexcept;
  void scheduleDrain(bool urgent) noexcept;
  void drainRound() noexcept;
  // After a drain: disarms the timer (a timer left armed would keep the timer thread alive
  // after shutdown) unless records came meanwhile.
  void drainIdle() noexcept;
  void requestSync() noexcept;
  void syncDrained() noexcept;

  std::shared_ptr<Store> store_;
  std::string writeKey_;
  // Guards State: every file and suite access holds it.
  ExclusiveRunner lock_;
  std::unique_ptr<State> state_;
  std::chrono::nanoseconds drainPeriod_;
  std::shared_ptr<platform::SerialQueue> drainQueue_;
  std::shared_ptr<platform::SerialQueue> syncQueue_;
  std::mutex drainTimerMutex_;
  std::shared_ptr<platform::TimerSource> drainTimer_;  // armed while drainPending_
  std::atomic<bool> drainPending_{false};              // a drain round is scheduled
  std::atomic<bool> drainUrgent_{false};               // one is queued to run at once
  std::atomic<bool> syncPending_{false};
};

// The suite key of `key`: "pelora.userId", "pelora.traits", "pelora.anonymousId",
// "pelora.settings", "pelora.events".
PELORA_API std::string_view rawValue(Storage::Key key) noexcept;

namespace detail {
// The write key as one safe file name: percent-encoded as a URL component, "." encoded too,
// so it never holds "/", NUL, "." or ".."; distinct keys give distinct names.
std::string safeFileName(std::string_view writeKey);

template <class T>
inline constexpr bool isStoredEvent =
    std::is_same_v<T, TrackEvent> || std::is_same_v<T, MonitorEvent>;
}  // namespace detail

template <class T>
void Storage::write(Key key, const T& value) {
  if constexpr (detail::isStoredEvent<T>) {
    if (key == Key::events) {
      writeEvent(
          [](std::string& out, const void* v) {
            appendJSONText(out, *static_cast<const T*>(v), maxEventTextDepth);
          },
          &value);
      return;
    }
  }
  if (key == Key::events) return;  // batch files hold events only
  if constexpr (pelora::detail::IsOptional<T>::value) {
    if (!value) {
      writeValue(key, std::nullopt);
    } else {
      write(key, *value);
    }
  } else {
    std::optional<JSON> json;
    try {
      if constexpr (std::is_constructible_v<JSON, const T&>) {
        json.emplace(value);
      } else {
        json.emplace(JSON::with(value));
      }
    } catch (const std::exception&) {
      return;  // not encodable: nothing is stored
    }
    writeValue(key, std::move(json));
  }
}

template <class T>
std::optional<T> Storage::read(Key key) {
  if (key == Key::events) return std::nullopt;
  std::optional<JSON> json = readValue(key);
  if (!json) return std::nullopt;
  try {
    return decodeValue<T>(*json);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace pelora
