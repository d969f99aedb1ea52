#include "pelora/state/batch_writer.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "pelora/platform/clock.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora {
namespace {

using detail::BatchFile;
using detail::cutBack;
using detail::kBatchHeader;
using detail::kFinishFunction;
using detail::kSentAtKey;
using detail::kTempExtension;
using detail::notOurs;
using detail::renameToFreeName;
using detail::stillNamed;
using detail::tryLock;
using detail::writeAll;
using platform::UniqueFd;

constexpr off_t kRollOverSize = detail::kRollOverSize;
// How often the open batch is checked for having been deleted behind our back.
constexpr auto kLinkCheckInterval = std::chrono::milliseconds(50);
// Tries at finding a batch file of our own before giving up on one event.
constexpr int kOpenAttempts = 64;

// The monotonic clock to a few milliseconds, for checks that run every so often: read per event,
// where the precise clock would cost a fair part of an event's time.
std::chrono::nanoseconds coarseNow() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
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

// Whether anything (a link included) has the name `path`.
bool named(const std::string& path) noexcept {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

}  // namespace

namespace detail {

bool writeAll(int fd, std::string_view text) noexcept {
  const char* data = text.data();
  std::size_t size = text.size();
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

bool cutBack(int fd, off_t size) noexcept {
  return ::ftruncate(fd, size) == 0 && ::fdatasync(fd) == 0;
}

int renameNoReplace(const char* from, const char* to) noexcept {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without RENAME_NOREPLACE: link() refuses an existing name as well.
  if (::link(from, to) != 0) return errno;
  ::unlink(from);
  return 0;
}

int renameToFreeName(const std::string& from, const std::string& stem, std::string_view extension,
                     std::string* chosen) noexcept {
  try {
    std::string name = stem + std::string(extension);
    int error = renameNoReplace(from.c_str(), name.c_str());
    for (int n = 1; error == EEXIST && n < 100; ++n) {
      name = stem + "." + std::to_string(n) + std::string(extension);
      error = renameNoReplace(from.c_str(), name.c_str());
    }
    if (error == 0 && chosen != nullptr) *chosen = std::move(name);
    return error;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

bool tryLock(int fd) noexcept {
  return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

bool stillNamed(int fd, const std::string& path, struct stat& info) noexcept {
  struct stat entry;
  return ::fstat(fd, &info) == 0 && info.st_nlink > 0 && ::lstat(path.c_str(), &entry) == 0 &&
         entry.st_ino == info.st_ino && entry.st_dev == info.st_dev;
}

bool notOurs(int error) noexcept {
  return error == ELOOP || error == EPERM || error == EISDIR;
}

}  // namespace detail

void Storage::State::storeIndex(std::uint64_t value) {
  setIndex(value);
  if (!suite) return;
  suite->set(rawValue(Key::events), JSON(index));
  suite->synchronize();  // on failure the suite retries with its next write
}

void Storage::State::skipTakenNumbers() {
  std::uint64_t next = index + 1;
  (void)unfinishedBatches(next);  // a number that cannot be listed is found by trying
  storeIndex(std::max(next, index + 1));
}

Storage::State::Closing Storage::State::appendClosing(int file, const std::string& path) {
  Closing result = Closing::notWritten;
  struct stat info;
  if (::fstat(file, &info) == 0) {
    std::string closing(kSentAtKey);
    closing.append(platform::iso8601Now()).append(closingEnd);
    if (writeAll(file, closing) && ::fdatasync(file) == 0) return Closing::written;
    if (!cutBack(file, info.st_size)) result = Closing::torn;
  }
  platform::log::message("Event storage " + path + " has some kind of problem.",
                         LogFilterKind::error, kFinishFunction, __LINE__);
  return result;
}

std::optional<std::string> Storage::State::moveToTemp(const std::string& path) {
  std::string finished;
  const int error = renameToFreeName(path, path, kTempExtension, &finished);
  if (error == 0) {
    platform::syncDirectory(directory);
    return finished;
  }
  const std::string message =
      "Unable to rename to temp: " + path + ", Error: " + std::generic_category().message(error);
  platform::printLine(message, LogLevel::error);
  platform::log::message(message, LogFilterKind::error, kFinishFunction, __LINE__);
  return std::nullopt;
}

bool Storage::State::openCurrent(bool create) {
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    UniqueFd file = platform::openOwnFile(currentPath, O_RDWR | O_APPEND);
    if (!file) {
      if (!create) return false;
      if (notOurs(errno)) {
        // Out of the way, so that its number cannot hold the index back.
        setAside(currentPath);
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
    if (info.st_size > 0 && namedByJournal(index)) {
      // A dead writer's batch that its journal's recovery will cut back and finish.
      file.reset();
      skipTakenNumbers();
      continue;
    }
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

void Storage::State::finish() {
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
      // The closing text was synced, and every event before it.
      commits.allSynced();
      syncedWrites.store(drainedWrites, std::memory_order_release);
      break;
    case Closing::notWritten:
      return;
    case Closing::torn:
      closeCurrent();
      return;
  }
  const auto finished = moveToTemp(currentPath);
  if (finished && known) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    known->finished.push_back({*finished, static_cast<std::uint64_t>(size), now, true});
  }
  closeCurrent();
  advanceIndex();
}

bool Storage::State::prepareBatch(off_t rollOverAt) {
  if (!recover()) return false;
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
  if (fd < 0 && !openCurrent(true)) return false;
  if (size >= rollOverAt) {
    finish();
    // When finishing failed the batch stays open and takes the event after all.
    if (fd < 0 && !openCurrent(true)) return false;
  }
  return true;
}

void Storage::State::storedAgain() {
  if (lostEvents == 0) return;
  platform::printLine("Pelora: events are stored again; " + std::to_string(lostEvents) +
                          " could not be stored and are lost",
                      LogLevel::warning);
  lostEvents = 0;
}

std::uint64_t Storage::State::append(std::string_view text) {
  keepWithinBound(text.size());
  if (!prepareBatch(kRollOverSize)) return lost(errno);
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
  storedAgain();
  if (triedDurable && !durable) syncedWritesWork = false;  // not here: don't ask again
  return commits.wrote(file, durable);
}

std::uint64_t Storage::State::lost(int error) {
  if (lostEvents++ == 0) {
    platform::printLine("Pelora: events cannot be stored in " + directory.string() +
                            " and are lost until they can: " +
                            (error != 0 ? std::strerror(error) : "no batch file could be opened"),
                        LogLevel::error);
  }
  return 0;
}

std::size_t Storage::State::eraseAll() {
  discardJournal();
  closeCurrent();
  std::size_t erased = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().native();
    if (name.starts_with('.')) continue;
    const bool batch = name.ends_with(kTempExtension) ||
                       name.ends_with(detail::kRefusedExtension) ||
                       detail::parseEventsFileName(name);
    struct stat info;
    if (!batch || ::lstat(it->path().c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    if (::unlink(it->path().c_str()) == 0) ++erased;
  }
  known.reset();
  directoryChanges.fetch_add(1, std::memory_order_release);
  if (erased > 0) platform::syncDirectory(directory);
  return erased;
}

std::vector<std::filesystem::path> Storage::State::finishAndList() {
  if (!recover()) return {};
  drainJournal();
  recoverJournals();
  finish();
  dropExpired();
  // Batches that crashed writers left behind (or that other clients gave up) go out too.
  std::uint64_t next = index;
  if (const auto unfinished = unfinishedBatches(next)) {
    for (const std::uint64_t stale : *unfinished) finishStale(stale);
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

}  // namespace pelora
