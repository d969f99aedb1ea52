// Storage's disk bound: keeps a write key's stored batches within maxStoredBytes and maxBatchAge by
// deleting the oldest finished batches, and counts and reports the events they held. Runs holding
// the storage lock, like the rest of Storage::State.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "pelora/platform/console.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/state/batch_writer.hpp"

namespace pelora {
namespace {

using detail::kRefusedExtension;
using detail::kTempExtension;
using detail::StoredBatch;

// Our batch files in `directory` (links and strangers' set-aside files are not ours to count);
// nothing when it cannot be listed.
std::optional<std::vector<StoredBatch>> listStored(const std::filesystem::path& directory) {
  std::vector<StoredBatch> found;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().native();
    if (name.starts_with('.')) continue;
    const bool finished = name.ends_with(kTempExtension) || name.ends_with(kRefusedExtension);
    if (!finished && !detail::parseEventsFileName(name)) continue;
    struct stat info;
    if (::lstat(it->path().c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
    found.push_back(
        {it->path().native(), static_cast<std::uint64_t>(info.st_size), info.st_mtim, finished});
  }
  if (error) return std::nullopt;
  return found;
}

bool olderThan(const std::timespec& a, const std::timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// The events a batch file holds; 0 when it cannot be read.
std::uint64_t eventsIn(const std::string& path) {
  platform::UniqueFd file = platform::openOwnFile(path, O_RDONLY);
  struct stat info;
  if (!file || ::fstat(file.get(), &info) != 0) return 0;
  const auto text = detail::readAll(file.get(), info.st_size);
  return text ? detail::scanBatch(*text, false, false).eventCount : 0;
}

// How often the picture is taken again while only this writer changes the directory (as far as it
// knows): other writers' batches are seen within that many bytes of ours.
std::uint64_t listingInterval(std::uint64_t maxBytes) {
  return std::min<std::uint64_t>(maxBytes / 8, 8 << 20);
}

// How far below the bound a trim goes, so that the next one is a roll-over away rather than the
// next event away.
std::uint64_t trimTarget(std::uint64_t maxBytes) {
  return maxBytes - std::min<std::uint64_t>(maxBytes / 8, detail::kRollOverSize);
}

}  // namespace

bool Storage::State::listKnown() {
  const std::uint64_t changes = directoryChanges.load(std::memory_order_acquire);
  auto stored = listStored(directory);
  if (!stored) return false;
  std::sort(stored->begin(), stored->end(), [](const StoredBatch& a, const StoredBatch& b) {
    if (olderThan(a.modified, b.modified)) return true;
    if (olderThan(b.modified, a.modified)) return false;
    return a.path < b.path;
  });
  detail::KnownBatches fresh;
  fresh.changesSeen = changes;
  for (StoredBatch& batch : *stored) {
    fresh.bytes += batch.size;
    if (batch.finished) fresh.finished.push_back(std::move(batch));
  }
  known = std::move(fresh);
  return true;
}

Storage::State::Dropped Storage::State::dropOldest(
    const std::function<bool(const StoredBatch&)>& drop) {
  Dropped dropped;
  // Another process's uploader may be sending any of them: only while nobody holds the upload
  // claim, or while we do (then `sending` names what is in flight), is a batch safe to delete.
  platform::UniqueFd claim;
  {
    std::lock_guard lock(sendingMutex);
    if (sending.empty()) {
      claim = platform::openOwnFile(directory / detail::kUploadsLockName, O_RDWR | O_CREAT);
      if (!claim || !detail::tryLock(claim.get())) return dropped;
    }
  }
  auto& finished = known->finished;
  for (auto it = finished.begin(); it != finished.end() && drop(*it);) {
    {
      std::lock_guard lock(sendingMutex);
      if (sending.contains(it->path)) {
        ++it;
        continue;
      }
    }
    // Not synced: a deletion that a power cut undoes only brings an old batch back.
    const std::uint64_t events = eventsIn(it->path);
    if (::unlink(it->path.c_str()) != 0) {
      if (errno != ENOENT) {
        ++it;
        continue;
      }
      // Delivered or deleted by someone else since the listing: its bytes are gone all the same.
      known->bytes -= std::min(known->bytes, it->size);
      it = finished.erase(it);
      continue;
    }
    known->bytes -= std::min(known->bytes, it->size);
    dropped.bytes += it->size;
    dropped.events += events;
    ++dropped.batches;
    it = finished.erase(it);
  }
  if (dropped.batches > 0) droppedEvents.fetch_add(dropped.events, std::memory_order_relaxed);
  return dropped;
}

void Storage::State::keepWithinBound(std::size_t incoming) {
  if (maxBytes == 0) return;
  if (known) {
    known->bytes += incoming;
    known->writtenSince += incoming;
  }
  // Listed again now and then for other writers' batches, and before deleting anything unless
  // the listing is as fresh as can be (nothing written since but this event): the picture may
  // count bytes that delivery, ours or another process's, has deleted since.
  const bool stale = !known || known->writtenSince > listingInterval(maxBytes) ||
                     (known->bytes > maxBytes &&
                      (known->writtenSince > incoming ||
                       directoryChanges.load(std::memory_order_acquire) != known->changesSeen));
  if (stale) {
    if (!listKnown()) {
      known.emplace().stuck = true;  // tried again once the interval has been written
      return;
    }
    known->bytes += incoming;
  }
  if (known->bytes <= maxBytes || known->stuck) return;
  const std::uint64_t target = trimTarget(maxBytes);
  const Dropped dropped = dropOldest([&](const StoredBatch&) { return known->bytes > target; });
  // Nothing more can go yet (being sent, or another uploader holds the claim): look again at the
  // next listing rather than at every event.
  if (known->bytes > maxBytes) known->stuck = true;
  if (dropped.batches > 0 && !droppingEpisode.exchange(true)) {
    platform::printLine("Pelora: stored events pass " + std::to_string(maxBytes) + " bytes; " +
                            std::to_string(dropped.events) + " events in " +
                            std::to_string(dropped.batches) + " batches were dropped, oldest first",
                        LogLevel::warning);
  }
}

void Storage::State::dropExpired() {
  if (maxAge.count() <= 0 || !listKnown()) return;
  std::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::timespec cutoff{now.tv_sec - static_cast<std::time_t>(maxAge.count()), now.tv_nsec};
  const Dropped dropped =
      dropOldest([&](const StoredBatch& batch) { return olderThan(batch.modified, cutoff); });
  if (dropped.batches > 0) {
    platform::printLine("Pelora: " + std::to_string(dropped.events) + " events in " +
                            std::to_string(dropped.batches) + " batches were older than " +
                            std::to_string(maxAge.count()) + " seconds and were dropped",
                        LogLevel::warning);
  }
}

}  // namespace pelora
