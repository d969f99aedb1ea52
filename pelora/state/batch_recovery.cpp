#include "pelora/state/batch_writer.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "pelora/platform/logging.hpp"

namespace pelora {
namespace {

using detail::BatchScan;
using detail::cutBack;
using detail::kBatchHeader;
using detail::kFinishFunction;
using detail::kSetAsideExtension;
using detail::notOurs;
using detail::parseEventsFileName;
using detail::readAll;
using detail::renameToFreeName;
using detail::scanBatch;
using detail::stillNamed;
using detail::tryLock;
using detail::writeAll;
using platform::UniqueFd;

}  // namespace

namespace detail {

// The first `size` bytes of `fd`; nothing when they cannot be read.
std::optional<std::string> readAll(int fd, off_t size) {
  if (size < 0) return std::nullopt;
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

}  // namespace detail

void Storage::State::setAside(const std::string& path) {
  const int error = renameToFreeName(path, path, kSetAsideExtension);
  platform::log::message("Event storage " + path + " is not a batch file; " +
                             (error == 0 ? "set aside." : "left in place."),
                         LogFilterKind::error, kFinishFunction, __LINE__);
}

Storage::State::Found Storage::State::repair(int file, const std::string& path, off_t size,
                                             bool& hasEventsOut) {
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
      if (static_cast<off_t>(found.keep) != size && !cutBack(file, static_cast<off_t>(found.keep)))
        return Found::nothing;
      hasEventsOut = found.hasEvents;
      return Found::open;
  }
  return Found::nothing;
}

void Storage::State::finishStale(std::uint64_t number) {
  const std::string path = pathFor(number);
  const UniqueFd file = platform::openOwnFile(path, O_RDWR | O_APPEND);
  if (!file && notOurs(errno)) setAside(path);
  struct stat info;
  if (!file || !tryLock(file.get()) || !stillNamed(file.get(), path, info)) return;
  // A dead writer's batch that its journal's recovery will cut back and finish.
  if (namedByJournal(number)) return;
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

std::optional<std::vector<std::uint64_t>> Storage::State::unfinishedBatches(
    std::uint64_t& next) const {
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

bool Storage::State::recover() {
  if (recovered) return true;
  if (!createDirectory()) return false;
  std::uint64_t next = index;
  const auto unfinished = unfinishedBatches(next);
  if (!unfinished) return true;
  recovered = true;
  for (const std::uint64_t stale : *unfinished) {
    if (stale < next) finishStale(stale);
  }
  if (next != index) storeIndex(next);
  recoverJournals();
  return true;
}

}  // namespace pelora
