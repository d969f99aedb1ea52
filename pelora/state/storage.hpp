// Storage: the client's only persistence. Identity, traits and settings live in the user-defaults
// suite "com.pelora.storage.<write key>"; events are appended to numbered batch files under
// <documents>/pelora/<write key>/. Callable from any thread except the storage's own queue: every
// file and suite access runs on that serial queue, which owns the open batch file and the suite.
// Other storages on the same key (in this process or another) may share the directory: each
// writes only to a batch it holds an flock on, and repairs and finishes what crashed ones left.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
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

class PELORA_API Storage {
 public:
  // The stored items; rawValue() gives each one's suite key.
  // optedOut and consent hold the person's choice about tracking (see PeloraAnalytics::optOut).
  enum class Constants { userId, traits, anonymousId, settings, events, optedOut, consent };

  // Keeps `store` and `writeKey` and opens the suite; touches no event file. Empty members of
  // `paths` take their defaults.
  static std::shared_ptr<Storage> create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths);
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  const std::shared_ptr<Store>& store() const noexcept { return store_; }
  const std::string& writeKey() const noexcept { return writeKey_; }

  // events: `value` (a TrackEvent or MonitorEvent) is appended to the current batch file; any
  // other type is ignored. Other keys: `value` is stored as JSON and the suite is written out;
  // an empty optional removes the key. Never throws; failures lose the value quietly.
  template <class T>
  void write(Constants key, const T& value);

  // events (T = std::vector<std::filesystem::path>): finishes the current batch file and lists
  // the finished ones ("*.temp") in lexical order. Other keys: the stored value decoded as T;
  // nothing when absent or not decodable. Never throws.
  template <class T>
  std::optional<T> read(Constants key);

  // Deletes a finished batch file. Throws std::filesystem::filesystem_error when that fails
  // (a missing file included). Does not enter the storage queue, so it may run inside sync().
  void remove(const std::filesystem::path& file);
  // Claims the right to upload (see UploadClaim); an empty claim while another uploader holds
  // it. Does not enter the storage queue.
  UploadClaim claimUploads() const;

  // Runs `block` on the storage queue (on the calling thread) and returns its result.
  template <class F>
  auto sync(F&& block) {
    return queue_.sync(std::forward<F>(block));
  }

  // Reads the suite again for what other clients of the write key stored since.
  void reloadSuite();
  // Refusing, events given to write() are dropped unwritten (the person opted out): set on the
  // storage queue, so no write that started before it lands after it.
  void refuseEvents(bool refuse);
  // Deletes every batch of the write key, open or finished, set aside or being uploaded, of any
  // writer; returns how many files went. The next event starts a new batch.
  std::size_t eraseStoredEvents();

  // <documents>/pelora/<write key as one file name>, created when missing.
  std::filesystem::path eventsDirectory() const;

  // The disk bound: once the stored batches (finished, set aside as refused, and open ones of
  // every writer) would pass `maxBytes`, the oldest finished ones are deleted; finished batches
  // older than `maxAge` are deleted too. 0 turns either off. Neither touches an open batch or one
  // being uploaded. Every deleted event is counted and logged once per episode, which a delivered
  // batch ends.
  void setLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge);
  // Events the disk bound deleted since this storage was made.
  std::uint64_t droppedEvents() const noexcept;
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

  Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths);

  void writeEvent(AppendText appendText, const void* event) noexcept;
  void writeValue(Constants key, std::optional<JSON> value) noexcept;
  std::optional<JSON> readValue(Constants key) noexcept;
  std::vector<std::filesystem::path> finishAndList() noexcept;

  std::shared_ptr<Store> store_;
  std::string writeKey_;
  // The storage queue: only ever entered with sync, so a lock without a queue's hand-off.
  ExclusiveRunner queue_;
  std::unique_ptr<State> state_;
};

// The suite key of `key`: "pelora.userId", "pelora.traits", "pelora.anonymousId",
// "pelora.settings", "pelora.events".
PELORA_API std::string_view rawValue(Storage::Constants key) noexcept;

namespace detail {
// The write key as one safe file name: percent-encoded as a URL component, "." encoded too,
// so it never holds "/", NUL, "." or ".."; distinct keys give distinct names.
std::string safeFileName(std::string_view writeKey);

template <class T>
inline constexpr bool isStoredEvent =
    std::is_same_v<T, TrackEvent> || std::is_same_v<T, MonitorEvent>;
}  // namespace detail

template <class T>
void Storage::write(Constants key, const T& value) {
  if constexpr (detail::isStoredEvent<T>) {
    if (key == Constants::events) {
      writeEvent(
          [](std::string& out, const void* v) {
            appendJSONText(out, *static_cast<const T*>(v), maxEventTextDepth);
          },
          &value);
      return;
    }
  }
  if (key == Constants::events) return;  // batch files hold events only
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
std::optional<T> Storage::read(Constants key) {
  if constexpr (std::is_same_v<T, std::vector<std::filesystem::path>>) {
    if (key == Constants::events) return finishAndList();
    return std::nullopt;
  } else {
    if (key == Constants::events) return std::nullopt;
    std::optional<JSON> json = readValue(key);
    if (!json) return std::nullopt;
    try {
      return decodeValue<T>(*json);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
}

}  // namespace pelora
