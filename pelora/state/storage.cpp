#include "pelora/state/storage.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>

#include "pelora/core/rapidjson_internal.hpp"
#include "pelora/platform/clock.hpp"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/logging.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/platform/user_defaults.hpp"

namespace pelora {
namespace {

using platform::UniqueFd;

constexpr std::string_view kSuitePrefix = "com.pelora.storage.";
constexpr std::string_view kFileSuffix = "-pelora-events";
constexpr std::string_view kTempExtension = ".temp";
constexpr std::string_view kSetAsideExtension = ".unreadable";
constexpr std::string_view kBatchHeader = "{ \"batch\": [";
constexpr std::string_view kSentAtKey = "],\"sentAt\":\"";
constexpr std::string_view kWriteKeyKey = "\",\"writeKey\":";
constexpr off_t kRollOverSize = 475'000;
// How often the open batch is checked for having been deleted behind our back.
constexpr auto kLinkCheckInterval = std::chrono::milliseconds(50);

// The monotonic clock to a few milliseconds, for checks that run every so often: read per event,
// where the precise clock would cost a fair part of an event's time.
std::chrono::nanoseconds coarseNow() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}
constexpr std::string_view kFinishFunction = "finish(file:)";
// Tries at finding a batch file of our own before giving up on one event.
constexpr int kOpenAttempts = 64;

std::string eventsFileName(std::uint64_t index) {
  return std::to_string(index).append(kFileSuffix);
}

// "<n>-pelora-events" (open) or "<n>-pelora-events.temp" (finished).
struct EventsFileName {
  std::uint64_t index;
  bool finished;
};

std::optional<EventsFileName> parseEventsFileName(std::string_view name) {
  const bool finished = name.ends_with(kTempExtension);
  if (finished) name.remove_suffix(kTempExtension.size());
  if (!name.ends_with(kFileSuffix)) return std::nullopt;
  name.remove_suffix(kFileSuffix.size());
  std::uint64_t index = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
  if (name.empty() || error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return EventsFileName{index, finished};
}

bool writeAll(int fd, const char* data, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(int fd, std::string_view text) noexcept {
  return writeAll(fd, text.data(), text.size());
}

// writeAll at `offset`, the end of the file: pwrite leaves the file position alone, so the kernel
// skips the position lock that write() takes on a descriptor of a multi-threaded process. With
// `sync`, each write also syncs its bytes as fdatasync would (one system call instead of two);
// `sync` is cleared when the kernel or the file system cannot do that, and the caller syncs.
bool writeAllAt(int fd, const char* data, std::size_t size, off_t offset, bool& sync) noexcept {
  while (size > 0) {
    iovec piece{const_cast<char*>(data), size};
    const ssize_t n =
        sync ? ::pwritev2(fd, &piece, 1, offset, RWF_DSYNC) : ::pwrite(fd, data, size, offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (sync && (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)) {
        sync = false;
        continue;
      }
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
    offset += static_cast<off_t>(n);
  }
  return true;
}

// The first `size` bytes of `fd`; nothing when they cannot be read.
std::optional<std::string> readAll(int fd, off_t size) {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    done += static_cast<std::size_t>(n);
  }
  return bytes;
}

// Drops a torn tail.
bool cutBack(int fd, off_t size) noexcept {
  return ::ftruncate(fd, size) == 0 && ::fdatasync(fd) == 0;
}

// Renames without ever replacing `to`; 0 or the errno of the failure.
int renameNoReplace(const char* from, const char* to) noexcept {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without RENAME_NOREPLACE: link() refuses an existing name as well.
  if (::link(from, to) != 0) return errno;
  ::unlink(from);
  return 0;
}

// Every writer of a batch file, in this process or another, holds an exclusive flock on it for as
// long as it has it open; a file that cannot be locked belongs to a live writer.
bool tryLock(int fd) noexcept {
  return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

// Whether anything (a link included) has the name `path`.
bool named(const std::string& path) noexcept {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

// Whether `path` still names the file open as `fd` (someone may have renamed or deleted it
// between our open and our lock); `info` receives the open file's status. A link to it does not.
bool stillNamed(int fd, const std::string& path, struct stat& info) noexcept {
  struct stat entry;
  return ::fstat(fd, &info) == 0 && info.st_nlink > 0 && ::lstat(path.c_str(), &entry) == 0 &&
         entry.st_ino == info.st_ino && entry.st_dev == info.st_dev;
}

// Why a batch name could not be opened, when the reason is that what has the name is not a batch
// file of ours (a link, a directory, a stranger's file): writers pass it by and never touch it.
bool notOurs(int error) noexcept {
  return error == ELOOP || error == EPERM || error == EISDIR;
}

// What an unfinished batch file holds, for recovery: whole events (objects that the strict reader
// takes) up to `keep` bytes, perhaps followed by a torn event, or by closing text (then the batch
// was finished but not renamed).
struct BatchScan {
  enum class Kind {
    headerOnly,  // no more than a prefix of the header: the file holds no event
    open,        // header and whole events up to `keep`; anything after it is torn
    closed,      // a finished batch that parses as a whole
    foreign,     // does not start as a batch file does
  };
  Kind kind = Kind::foreign;
  std::size_t keep = 0;
  bool hasEvents = false;
};

// Walks a batch file's text with RapidJSON's iterative SAX reader (no depth of nesting can exhaust
// the stack): the batch object, its array of events, each event checked as a whole by the strict
// reader, then the closing keys. Stops at the first thing that a finished batch could not hold.
class BatchScanner : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, BatchScanner> {
 public:
  explicit BatchScanner(std::string_view text) : text_(text), stream_(text.data(), text.size()) {}

  BatchScan scan() {
    BatchScan result;
    if (text_.size() < kBatchHeader.size()) {
      result.kind =
          kBatchHeader.starts_with(text_) ? BatchScan::Kind::headerOnly : BatchScan::Kind::foreign;
      return result;
    }
    if (!text_.starts_with(kBatchHeader)) return result;
    rapidjson::Reader reader;
    constexpr unsigned flags = rapidjson::kParseIterativeFlag |
                               rapidjson::kParseValidateEncodingFlag |
                               rapidjson::kParseNumbersAsStringsFlag;
    // RapidJSON takes a NUL byte for the end of its input: whatever follows must be checked too.
    const bool parsed =
        !reader.Parse<flags>(stream_, *this).IsError() && stream_.Tell() == text_.size();
    result.hasEvents = events_ > 0;
    result.kind = parsed && phase_ == Phase::done ? BatchScan::Kind::closed : BatchScan::Kind::open;
    result.keep = keep_;
    return result;
  }

  // The reader calls these with the stream at the token's first byte.
  bool Null() { return scalar(); }
  bool Bool(bool) { return scalar(); }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return scalar(); }
  bool String(const char*, rapidjson::SizeType, bool) {
    if (phase_ == Phase::sentAtValue) return advance(Phase::sentAtValue, Phase::writeKey);
    if (phase_ == Phase::writeKeyValue) return advance(Phase::writeKeyValue, Phase::end);
    return scalar();
  }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    if (depth_ > 1) return true;
    const std::string_view key(text, length);
    if (key == "batch") return advance(Phase::start, Phase::array);
    if (key == "sentAt") return advance(Phase::sentAt, Phase::sentAtValue);
    if (key == "writeKey") return advance(Phase::writeKey, Phase::writeKeyValue);
    return false;
  }
  bool StartObject() {
    if (depth_ == 0) return ++depth_ == 1;
    if (depth_ == 2) eventStart_ = stream_.Tell();
    return open();
  }
  bool EndObject(rapidjson::SizeType) {
    --depth_;
    if (depth_ == 0) return advance(Phase::end, Phase::done);
    if (depth_ == 2) return endEvent(stream_.Tell() + 1);
    return true;
  }
  bool StartArray() {
    if (depth_ == 1) {
      if (!advance(Phase::array, Phase::events)) return false;
      keep_ = kBatchHeader.size();
      ++depth_;
      return true;
    }
    return open();
  }
  bool EndArray(rapidjson::SizeType) {
    --depth_;
    if (depth_ == 1) return advance(Phase::events, Phase::sentAt);
    return true;
  }

 private:
  enum class Phase {
    start,
    array,
    events,
    sentAt,
    sentAtValue,
    writeKey,
    writeKeyValue,
    end,
    done
  };

  bool advance(Phase from, Phase to) {
    if (phase_ != from) return false;
    phase_ = to;
    return true;
  }
  // Only events (objects) sit in the batch array.
  bool scalar() const { return depth_ > 2; }
  bool open() {
    if (depth_ < 2 || depth_ >= JSON::maxNestingDepth) return false;
    ++depth_;
    return true;
  }
  // An event is whole when the strict reader takes it: the service reads batches the same way.
  bool endEvent(std::size_t end) {
    try {
      (void)JSON::parse(text_.substr(eventStart_, end - eventStart_));
    } catch (const DecodingError&) {
      return false;  // anything else (out of memory) must not pass for a torn event
    }
    keep_ = end;
    ++events_;
    return true;
  }

  std::string_view text_;
  rapidjson::MemoryStream stream_;
  Phase phase_ = Phase::start;
  int depth_ = 0;
  std::size_t eventStart_ = 0;
  std::size_t keep_ = 0;
  std::size_t events_ = 0;
};

BatchScan scanBatch(std::string_view text) {
  return BatchScanner(text).scan();
}

std::uint64_t fnv1a(std::string_view bytes) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3ull;
  return hash;
}

}  // namespace

std::string_view rawValue(Storage::Constants key) noexcept {
  switch (key) {
    case Storage::Constants::userId:
      return "pelora.userId";
    case Storage::Constants::traits:
      return "pelora.traits";
    case Storage::Constants::anonymousId:
      return "pelora.anonymousId";
    case Storage::Constants::settings:
      return "pelora.settings";
    case Storage::Constants::events:
      break;
  }
  return "pelora.events";
}

namespace detail {

std::string safeFileName(std::string_view writeKey) {
  // The encoding below only ever writes "%" before two upper-case hex digits, so "%e…" and "%h…"
  // cannot collide with it: they mark the empty key and over-long keys.
  if (writeKey.empty()) return "%empty";
  constexpr std::size_t kMaxLength = 160;  // leaves room for the suite's affixes under NAME_MAX

  std::string encoded;
  const std::size_t head = std::min(writeKey.size(), kMaxLength);
  for (const char c : platform::percentEncoded(writeKey.substr(0, head))) {
    if (c == '.') {
      encoded.append("%2E");  // so that "." and ".." never appear
    } else {
      encoded.push_back(c);
    }
  }
  if (head == writeKey.size() && !encoded.empty() && encoded.size() <= kMaxLength) return encoded;

  // Too long for a file name: a readable prefix and a hash of the whole key.
  encoded.resize(std::min(encoded.size(), kMaxLength - 18));
  if (const auto cut = encoded.find('%', encoded.size() < 2 ? 0 : encoded.size() - 2);
      cut != std::string::npos)
    encoded.resize(cut);
  char hash[17];
  std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(fnv1a(writeKey)));
  return encoded.append("%h").append(hash);
}

}  // namespace detail

// The queue-confined part of Storage: the suite, the index and the open batch file. Every member
// function runs on the storage queue only.
//
// Several writers may share an events directory: two clients of one process, or two processes of
// one application. Each writes only to a batch file it holds an exclusive flock on, from opening it
// until it is finished and renamed, so a file has one writer at a time and a crashed writer's lock
// goes with it. A writer that finds its next file locked moves on to the next number; unlocked
// unfinished files are a crashed writer's, and are repaired and finished by whoever comes next.
// An open batch file, shared by the storage (while it is the current batch) and a sync in progress,
// so a sync may still run on it after it was finished and closed. Closing releases the lock.
struct BatchFile {
  explicit BatchFile(int descriptor) noexcept : fd(descriptor) {}
  ~BatchFile() { ::close(fd); }
  BatchFile(const BatchFile&) = delete;
  BatchFile& operator=(const BatchFile&) = delete;
  const int fd;
};

// Group commit. Events are written under the storage queue in order; each writer then waits,
// outside the queue, until a sync that began after its write has finished. The first writer to
// find no sync running syncs the latest batch for everyone written so far; the others wait for it
// or for the next one. Finishing a batch syncs it (its closing text), which covers every event
// written before: events of one batch never follow events of a later one. A writer alone (every
// earlier event synced, nobody else on the way) has its write sync itself instead: one system call
// fewer, and nothing is left for a group to share.
struct GroupCommit {
  std::mutex mutex;
  std::condition_variable done;
  std::uint64_t written = 0;  // events written so far; changed under the storage queue and `mutex`
  // Written under `mutex`; atomic so that alone() may look without taking it.
  std::atomic<bool> syncing{false};
  std::shared_ptr<const BatchFile> latest;  // the batch the last event went to
  // Events known to be on disk; changed under `mutex`, read without it by waiters that spin.
  std::atomic<std::uint64_t> synced{0};
  // Writers that entered but have not written yet (encoding, or waiting for the write lock): a
  // sync about to start lets them write first (for a moment at most) and covers them too, instead
  // of leaving them for the next sync.
  std::atomic<int> arriving{0};

  // Under the storage queue, before a write: whether the writer is alone (every event before it
  // is on disk, no sync is running, no other writer is on its way), so that its write may carry
  // its own sync. A group shares one sync instead.
  // Without `mutex`: `written` and `soloPause` only change under the storage queue, which the
  // caller holds, and every thread that records would take the lock here.
  bool alone() {
    if (soloPause > 0) {
      --soloPause;
      return false;
    }
    return !syncing.load(std::memory_order_acquire) &&
           synced.load(std::memory_order_acquire) == written &&
           arriving.load(std::memory_order_acquire) == 1;
  }
  // Under the storage queue, after an event was written to `file`: its ticket. `durable` when the
  // write synced itself (alone() was true): nothing written before it was left unsynced, so the
  // ticket is on disk already.
  std::uint64_t wrote(const std::shared_ptr<const BatchFile>& file, bool durable = false) {
    std::lock_guard lock(mutex);
    if (latest != file) latest = file;
    ++written;
    if (durable && synced.load(std::memory_order_relaxed) == written - 1) {
      synced.store(written, std::memory_order_release);
      lastGroup = 1;
    }
    // A writer that came while the write synced had to wait for the whole sync, where a group
    // would have let it write: threads are recording together, so share syncs for a while.
    if (durable && arriving.load(std::memory_order_acquire) > 1) soloPause = kSoloPause;
    return written;
  }
  // Under the storage queue, after a batch was synced whole.
  void allSynced() {
    std::lock_guard lock(mutex);
    synced.store(written, std::memory_order_release);
    done.notify_all();
  }
  // Returns once the event of `ticket` is on disk (as far as fdatasync can tell).
  void waitFor(std::uint64_t ticket) {
    if (synced.load(std::memory_order_acquire) >= ticket) return;
    std::unique_lock lock(mutex);
    while (synced.load(std::memory_order_relaxed) < ticket) {
      if (syncing.load(std::memory_order_relaxed)) {
        // A sync on a fast device ends sooner than a sleep and a wake-up would: look again for
        // a moment before sleeping.
        lock.unlock();
        for (int spin = 0; spin < kSpins; ++spin) {
          cpuRelax();
          if (synced.load(std::memory_order_acquire) >= ticket) return;
        }
        lock.lock();
        if (syncing.load(std::memory_order_relaxed) &&
            synced.load(std::memory_order_relaxed) < ticket) {
          done.wait(lock);
        }
        continue;
      }
      syncing.store(true, std::memory_order_relaxed);
      // While several threads record, the last sync's group is likely to come again: give the
      // writers a moment (a fraction of a sync) to write before syncing. Yield rather than spin:
      // they may need this very core to get there. A lone writer never waits.
      const std::uint64_t already = synced.load(std::memory_order_relaxed);
      if (lastGroup > 1 && written - already < lastGroup) {
        lock.unlock();
        const auto until = std::chrono::steady_clock::now() + std::min(lastSync * 3 / 4, kMaxWait);
        while (std::chrono::steady_clock::now() < until) {
          std::this_thread::yield();
          std::lock_guard check(mutex);
          if (written - already >= lastGroup && arriving.load(std::memory_order_acquire) == 0)
            break;
        }
        lock.lock();
      }
      const std::uint64_t target = written;
      // A lone writer's syncs are not timed: only a group's wait needs the figure.
      const bool timed = lastGroup > 1 || target - already > 1;
      const auto started =
          timed ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point();
      const std::shared_ptr<const BatchFile> file = latest;
      lock.unlock();
      const bool ok = file && ::fdatasync(file->fd) == 0;
      const int error = errno;
      lock.lock();
      syncing.store(false, std::memory_order_relaxed);
      if (timed) {
        lastSync = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - started);
      }
      // The writers of this round: those the sync covered and those that wrote while it ran.
      // Counting the latter keeps threads from settling into two groups that take turns (each
      // sync covering half of them); the next leader waits for all of them instead.
      lastGroup = written - std::min(written, synced.load(std::memory_order_relaxed));
      // A failed sync cannot be undone for events of other writers; they stay written.
      if (!ok) {
        log::message("Event storage could not sync a batch: " + std::string(std::strerror(error)),
                     LogFilterKind::error, "write(_:)", __LINE__);
      }
      if (synced.load(std::memory_order_relaxed) < target) {
        synced.store(target, std::memory_order_release);
      }
      done.notify_all();
    }
  }

 private:
  static constexpr int kSpins = 200;
  static constexpr int kSoloPause =
      1024;           // writes that share syncs after a solo write was in the way
  int soloPause = 0;  // under the storage queue
  static constexpr std::chrono::microseconds kMaxWait{200};
  std::uint64_t lastGroup = 0;            // events of the last round (see waitFor)
  std::chrono::microseconds lastSync{0};  // how long it took
};

struct Storage::State {
  std::string writeKey;
  std::string closingEnd;  // `","writeKey":"<key as a JSON string>"}`
  std::filesystem::path documents;
  std::filesystem::path directory;     // documents / ownDirectory
  std::filesystem::path ownDirectory;  // "pelora/<key as one file name>"
  std::optional<platform::UserDefaults> suite;

  bool recovered = false;
  std::uint64_t index = 0;
  std::string currentPath;  // directory / "<index>-pelora-events"

  // The open current batch (locked by us), and whether it holds an event yet. `fd` is the
  // descriptor of `file`, which a sync in progress may keep open a little longer.
  int fd = -1;
  std::shared_ptr<const BatchFile> file;
  off_t size = 0;  // its size: only this writer changes it while it holds the lock
  bool hasEvents = false;
  // When the open batch was last seen to still have a name (see append).
  std::chrono::nanoseconds lastLinkCheck{0};  // coarseNow()
  // Whether writes that sync themselves (RWF_DSYNC) work on this kernel and file system.
  bool syncedWritesWork = true;
  std::uint64_t lostEvents = 0;  // since the last event that was stored
  GroupCommit commits;

  ~State() { closeCurrent(); }

  // False when the events directory cannot be made, or is not ours to keep batches in.
  bool createDirectory() const noexcept {
    return platform::makePrivateDirectory(documents, ownDirectory);
  }

  std::string pathFor(std::uint64_t number) const { return directory / eventsFileName(number); }

  void setIndex(std::uint64_t value) {
    index = value;
    currentPath = pathFor(index);
  }

  void storeIndex(std::uint64_t value) {
    setIndex(value);
    if (!suite) return;
    suite->set(rawValue(Constants::events), JSON(index));
    suite->synchronize();  // on failure the suite retries with its next write
  }

  void advanceIndex() { storeIndex(index + 1); }

  // The current number is taken (finished, or another writer's): goes past every number in use at
  // once. Stepping one by one, a writer far behind another would walk through each of the other's
  // batches, and could run out of tries before finding a free number (losing the event).
  void skipTakenNumbers() {
    std::uint64_t next = index + 1;
    (void)unfinishedBatches(next);  // a number that cannot be listed is found by trying
    storeIndex(std::max(next, index + 1));
  }

  void closeCurrent() noexcept {
    file.reset();  // closes it (and so releases the lock) unless a sync still runs on it
    fd = -1;
    hasEvents = false;
  }

  enum class Closing { written, notWritten, torn };

  // Appends `],"sentAt":"<now>","writeKey":"<key>"}`. On failure the file is cut back to what it
  // was, so a later finish can try again, and the batch is reported. `torn` when even the cut
  // failed: then nothing may be appended to this descriptor (recovery cuts the tail on reopening).
  Closing appendClosing(int file, const std::string& path) {
    Closing result = Closing::notWritten;
    struct stat info;
    if (::fstat(file, &info) == 0) {
      std::string closing(kSentAtKey);
      closing.append(platform::iso8601Now()).append(closingEnd);
      if (writeAll(file, closing) && ::fdatasync(file) == 0) return Closing::written;
      if (!cutBack(file, info.st_size)) result = Closing::torn;
    }
    log::message("Event storage " + path + " has some kind of problem.", LogFilterKind::error,
                 kFinishFunction, __LINE__);
    return result;
  }

  // Moves a closed batch to its ".temp" name, never over an existing one (which a crash or a
  // stranger may have left); then the name gets a number before ".temp".
  void moveToTemp(const std::string& path) {
    int error = renameNoReplace(path.c_str(), (path + std::string(kTempExtension)).c_str());
    for (int n = 1; error == EEXIST && n < 100; ++n) {
      const std::string alternative = path + "." + std::to_string(n) + std::string(kTempExtension);
      error = renameNoReplace(path.c_str(), alternative.c_str());
    }
    if (error == 0) {
      platform::syncDirectory(directory);
      return;
    }
    const std::string message =
        "Unable to rename to temp: " + path + ", Error: " + std::generic_category().message(error);
    platform::printLine(message);
    log::message(message, LogFilterKind::error, kFinishFunction, __LINE__);
  }

  // A file named like a batch that is none of ours: kept for a person to look at, out of the way.
  // When no name is free it stays where it is, and writers pass it by.
  void setAside(const std::string& path) {
    int error = renameNoReplace(path.c_str(), (path + std::string(kSetAsideExtension)).c_str());
    for (int n = 1; error == EEXIST && n < 100; ++n) {
      const std::string alternative =
          path + "." + std::to_string(n) + std::string(kSetAsideExtension);
      error = renameNoReplace(path.c_str(), alternative.c_str());
    }
    log::message("Event storage " + path + " is not a batch file; " +
                     (error == 0 ? "set aside." : "left in place."),
                 LogFilterKind::error, kFinishFunction, __LINE__);
  }

  enum class Found { open, finished, nothing };

  // Brings an unfinished batch that a crashed writer left (and that we have just locked) into a
  // state we can append to: a torn event or torn closing text is cut back to the end of the last
  // whole event. A batch that turns out to be closed is moved to ".temp"; an empty or foreign one
  // is removed or set aside. `hasEventsOut` tells whether an open one holds an event.
  Found repair(int file, const std::string& path, off_t size, bool& hasEventsOut) {
    const auto text = readAll(file, size);
    if (!text) return Found::nothing;
    const BatchScan found = scanBatch(*text);
    switch (found.kind) {
      case BatchScan::Kind::foreign:
        setAside(path);
        return Found::finished;
      case BatchScan::Kind::closed: {
        struct stat info;
        const bool alsoFinished = ::fstat(file, &info) == 0 && info.st_nlink > 1;
        if (found.hasEvents && !alsoFinished) {
          moveToTemp(path);
        } else {
          // Empty (it would be refused for ever), or already linked under its finished name by
          // a rename that stopped half way.
          ::unlink(path.c_str());
        }
        return Found::finished;
      }
      case BatchScan::Kind::headerOnly:
        if (::ftruncate(file, 0) != 0 || !writeAll(file, kBatchHeader) || ::fdatasync(file) != 0)
          return Found::nothing;
        hasEventsOut = false;
        return Found::open;
      case BatchScan::Kind::open:
        if (static_cast<off_t>(found.keep) != size &&
            !cutBack(file, static_cast<off_t>(found.keep)))
          return Found::nothing;
        hasEventsOut = found.hasEvents;
        return Found::open;
    }
    return Found::nothing;
  }

  // Opens the current batch file for appending into `fd`, locked, creating it with the batch
  // header when `create` is set. A file that another writer holds, or that turns out to be
  // finished, moves the index on.
  bool openCurrent(bool create) {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      UniqueFd file = platform::openOwnFile(currentPath, O_RDWR | O_APPEND);
      if (!file) {
        if (!create) return false;
        if (notOurs(errno)) {
          skipTakenNumbers();
          continue;
        }
        if (errno != ENOENT) return false;
        // A finished batch of this number exists: a new one would only take another name.
        if (named(currentPath + std::string(kTempExtension))) {
          skipTakenNumbers();
          continue;
        }
        if (!createDirectory()) return false;
        file = platform::createNewFile(currentPath, O_RDWR | O_APPEND);
        if (!file) {
          if (errno != EEXIST) return false;
          continue;  // another writer's new batch, or a link: looked at again
        }
      }
      if (!tryLock(file.get())) {
        if (!create) return false;  // another writer's current batch: nothing of ours to finish
        skipTakenNumbers();
        continue;
      }
      struct stat info;
      if (!stillNamed(file.get(), currentPath, info)) continue;  // finished or removed meanwhile
      bool holdsEvents = false;
      if (info.st_size == 0) {
        if (!create) return false;
        if (!writeAll(file.get(), kBatchHeader) || ::fdatasync(file.get()) != 0) {
          // Removed while still locked, so that no other writer takes a file with half a header.
          ::unlink(currentPath.c_str());
          return false;
        }
        platform::syncDirectory(directory);
      } else {
        const Found found = repair(file.get(), currentPath, info.st_size, holdsEvents);
        if (found == Found::nothing) return false;
        if (found == Found::finished) {
          skipTakenNumbers();
          continue;
        }
      }
      struct stat opened;
      if (::fstat(file.get(), &opened) != 0) return false;
      fd = file.get();
      this->file = std::make_shared<const BatchFile>(file.release());
      size = opened.st_size;
      hasEvents = holdsEvents;
      lastLinkCheck = coarseNow();
      return true;
    }
    return false;
  }

  // Closes the current batch, moves it to ".temp" and advances the index. A missing file, or one
  // holding no event, is left alone: no empty batch, and the index stays. The file is renamed
  // before its lock goes, so that no other writer can take it for an unfinished one.
  void finish() {
    if (fd < 0 && !openCurrent(false)) return;
    if (!hasEvents) return;
    struct stat info;
    if (!stillNamed(fd, currentPath, info) && named(currentPath)) {
      // Deleted behind our back and the name taken by another writer since: that batch is not
      // ours to finish (ours went with the deletion).
      closeCurrent();
      advanceIndex();
      return;
    }
    switch (appendClosing(fd, currentPath)) {
      case Closing::written:
        commits.allSynced();  // the closing text was synced, and every event before it
        break;
      case Closing::notWritten:
        return;
      case Closing::torn:
        closeCurrent();
        return;
    }
    moveToTemp(currentPath);
    closeCurrent();
    advanceIndex();
  }

  // Finishes an unfinished batch that no writer holds (a crashed one's).
  void finishStale(const std::string& path) {
    const UniqueFd file = platform::openOwnFile(path, O_RDWR | O_APPEND);
    struct stat info;
    if (!file || !tryLock(file.get()) || !stillNamed(file.get(), path, info)) return;
    bool holdsEvents = false;
    if (info.st_size == 0) {
      ::unlink(path.c_str());
    } else if (repair(file.get(), path, info.st_size, holdsEvents) == Found::open) {
      if (!holdsEvents) {
        ::unlink(path.c_str());
      } else if (appendClosing(file.get(), path) == Closing::written) {
        moveToTemp(path);
      }
    }
  }

  // The unfinished batches in the directory other than our own current one, and the number after
  // the highest one in use. Nothing when the directory cannot be listed.
  std::optional<std::vector<std::uint64_t>> unfinishedBatches(std::uint64_t& next) const {
    std::vector<std::uint64_t> unfinished;
    std::error_code error;
    std::filesystem::directory_iterator it(directory, error);
    if (error == std::errc::no_such_file_or_directory) return unfinished;
    for (std::filesystem::directory_iterator end; !error && it != end; it.increment(error)) {
      const auto parsed = parseEventsFileName(it->path().filename().native());
      if (!parsed) continue;
      if (parsed->finished) {
        next = std::max(next, parsed->index + 1);
      } else {
        next = std::max(next, parsed->index);
        if (fd < 0 || parsed->index != index) unfinished.push_back(parsed->index);
      }
    }
    if (error) return std::nullopt;
    return unfinished;
  }

  // First use on the queue. The stored index holds unless the files are ahead of it: a crash
  // between the rename and storing the index leaves a ".temp" at the stored index, a lost suite
  // leaves files above it. Unfinished files below the index (a crashed writer's, or a rename that
  // failed earlier) are repaired and finished now; ones that hold no event are deleted. Tried
  // again while the directory cannot be listed. False when there is no directory of ours to keep
  // batches in (errno says why).
  bool recover() {
    if (recovered) return true;
    if (!createDirectory()) return false;
    std::uint64_t next = index;
    const auto unfinished = unfinishedBatches(next);
    if (!unfinished) return true;
    recovered = true;
    for (const std::uint64_t stale : *unfinished) {
      if (stale < next) finishStale(pathFor(stale));
    }
    if (next != index) storeIndex(next);
    return true;
  }

  // Appends `text` ("," + one event's text) to the current batch. Returns the event's ticket
  // for GroupCommit::waitFor, or 0 when nothing was written.
  std::uint64_t append(std::string_view text) {
    if (!recover()) return lost(errno);

    // A batch deleted behind our back (its link count 0) is left for a new one. Looked at now and
    // then rather than for every event: a status call would cost as much as the write itself.
    // Events written in between go with the deleted file.
    if (fd >= 0) {
      const auto now = coarseNow();
      if (now - lastLinkCheck >= kLinkCheckInterval) {
        lastLinkCheck = now;
        struct stat info;
        if (::fstat(fd, &info) != 0 || info.st_nlink == 0) closeCurrent();
      }
    }
    if (fd < 0 && !openCurrent(true)) return lost(errno);
    if (size >= kRollOverSize) {
      finish();
      // When finishing failed the batch stays open and takes the event after all.
      if (fd < 0 && !openCurrent(true)) return lost(errno);
    }
    const std::size_t skip = hasEvents ? 0 : 1;  // the first event of a batch has no comma
    bool durable = syncedWritesWork && commits.alone();
    const bool triedDurable = durable;
    if (!writeAllAt(fd, text.data() + skip, text.size() - skip, size, durable)) {
      const int error = errno;
      // A torn event would spoil the whole batch: cut the file back to where it was.
      if (!cutBack(fd, size)) closeCurrent();
      return lost(error);
    }
    size += static_cast<off_t>(text.size() - skip);
    hasEvents = true;
    if (lostEvents > 0) {
      platform::printLine("Pelora: events are stored again; " + std::to_string(lostEvents) +
                              " could not be stored and are lost",
                          LogLevel::warning);
      lostEvents = 0;
    }
    if (triedDurable && !durable) syncedWritesWork = false;  // not here: don't ask again
    return commits.wrote(file, durable);
  }

  // An event that found no room (or a failing disk) is lost: the host hears of the first of a run
  // of them and, once events are stored again, how many there were.
  std::uint64_t lost(int error) {
    if (lostEvents++ == 0) {
      platform::printLine("Pelora: events cannot be stored in " + directory.string() +
                              " and are lost until they can: " +
                              (error != 0 ? std::strerror(error) : "no batch file could be opened"),
                          LogLevel::error);
    }
    return 0;
  }

  std::vector<std::filesystem::path> finishAndList() {
    if (!recover()) return {};
    finish();
    // Batches that crashed writers left behind (or that other clients gave up) go out too.
    std::uint64_t next = index;
    if (const auto unfinished = unfinishedBatches(next)) {
      for (const std::uint64_t stale : *unfinished) finishStale(pathFor(stale));
    }
    if (!createDirectory()) return {};
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
      const std::string name = it->path().filename().native();
      // The entry itself, not what a link names: a link would send a file that is not ours.
      std::error_code typeError;
      if (name.starts_with('.') || it->path().extension().native() != kTempExtension ||
          it->symlink_status(typeError).type() != std::filesystem::file_type::regular)
        continue;
      files.push_back(it->path());
    }
    if (error) return {};
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
      return a.filename().native() < b.filename().native();
    });
    return files;
  }
};

Storage::Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths)
    : store_(std::move(store)),
      writeKey_(std::move(writeKey)),
      queue_(std::string("storage.").append(platform::queueLabelSuffix)),
      state_(std::make_unique<State>()) {
  if (paths.documents.empty() || paths.preferences.empty()) {
    const auto defaults = platform::Paths::defaults();
    if (paths.documents.empty()) paths.documents = defaults.documents;
    if (paths.preferences.empty()) paths.preferences = defaults.preferences;
  }
  const std::string name = detail::safeFileName(writeKey_);
  state_->writeKey = writeKey_;
  // The key as a JSON string, so that the batch stays JSON whatever the key holds.
  state_->closingEnd = std::string(kWriteKeyKey).append(toString(writeKey_)).append("}");
  state_->documents = paths.documents;
  state_->ownDirectory = std::filesystem::path("pelora") / name;
  state_->directory = state_->documents / state_->ownDirectory;
  state_->suite = platform::UserDefaults::open(paths.preferences, std::string(kSuitePrefix) + name);
  std::uint64_t stored = 0;
  if (state_->suite) {
    if (auto value = state_->suite->get(rawValue(Constants::events)))
      stored = value->uintValue().value_or(0);
  }
  state_->setIndex(stored);
}

Storage::~Storage() = default;

std::shared_ptr<Storage> Storage::create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths) {
  return std::shared_ptr<Storage>(
      new Storage(std::move(store), std::move(writeKey), std::move(paths)));
}

std::filesystem::path Storage::eventsDirectory() const {
  state_->createDirectory();
  return state_->directory;
}

// Each block catches its own failures so that nothing unwinds through the queue.

void Storage::writeEvent(AppendText appendText, const void* event) noexcept {
  // Encoded on the caller's thread, so that recording threads encode side by side and hold the
  // queue only for the write; the buffer is the thread's own and keeps its memory.
  thread_local std::string text;
  auto& arriving = state_->commits.arriving;
  arriving.fetch_add(1, std::memory_order_acq_rel);
  try {
    text.assign(1, ',');
    appendText(text, event);
  } catch (const std::exception&) {
    arriving.fetch_sub(1, std::memory_order_acq_rel);
    return;  // not encodable (or out of memory): nothing is written
  }
  const std::uint64_t ticket = queue_.sync([&]() noexcept -> std::uint64_t {
    std::uint64_t written = 0;
    try {
      written = state_->append(text);
    } catch (const std::exception&) {
      // out of memory on the way: the event is lost, the host never hears of it
    }
    arriving.fetch_sub(1, std::memory_order_acq_rel);
    return written;
  });
  // Durable before the call returns; threads recording at once share one sync.
  if (ticket != 0) state_->commits.waitFor(ticket);
  // One huge event must not pin its buffer for the life of the thread.
  if (text.capacity() > (1u << 20)) std::string().swap(text);
}

void Storage::writeValue(Constants key, std::optional<JSON> value) noexcept {
  queue_.sync([&]() noexcept {
    auto& suite = state_->suite;
    if (!suite) return;
    try {
      if (value) {
        suite->set(rawValue(key), std::move(*value));
      } else {
        suite->remove(rawValue(key));
      }
    } catch (const std::exception&) {
      return;
    }
    suite->synchronize();
  });
}

std::optional<JSON> Storage::readValue(Constants key) noexcept {
  return queue_.sync([&]() noexcept -> std::optional<JSON> {
    if (!state_->suite) return std::nullopt;
    try {
      return state_->suite->get(rawValue(key));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  });
}

std::vector<std::filesystem::path> Storage::finishAndList() noexcept {
  return queue_.sync([&]() noexcept -> std::vector<std::filesystem::path> {
    try {
      return state_->finishAndList();
    } catch (const std::exception&) {
      return {};
    }
  });
}

void UploadClaim::release() noexcept {
  if (fd_ >= 0) ::close(fd_);  // releases the flock
  fd_ = -1;
}

UploadClaim Storage::claimUploads() const {
  if (!state_->createDirectory()) return {};
  // A hidden file: listings skip it and it never looks like a batch.
  UniqueFd file = platform::openOwnFile(state_->directory / ".uploads.lock", O_RDWR | O_CREAT);
  if (!file || !tryLock(file.get())) return {};
  return UploadClaim(file.release());
}

void Storage::remove(const std::filesystem::path& file) {
  if (::unlink(file.c_str()) != 0) {
    throw std::filesystem::filesystem_error("Unable to remove batch file", file,
                                            std::error_code(errno, std::generic_category()));
  }
}

}  // namespace pelora
