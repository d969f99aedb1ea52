// Storage's disk bound: keeps a write key's stored batches within maxStoredBytes and maxBatchAge by
// deleting the oldest finished batches, and counts and reports the events they held. Runs on the
// storage queue, like the rest of Storage::State.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

}  // namespace

Storage::State::Dropped Storage::State::dropOldest(
    std::vector<StoredBatch>& stored,
    const std::function<bool(const StoredBatch&, const Dropped&)>& drop) {
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
  std::sort(stored.begin(), stored.end(), [](const StoredBatch& a, const StoredBatch& b) {
    if (olderThan(a.modified, b.modified)) return true;
    if (olderThan(b.modified, a.modified)) return false;
    return a.path < b.path;
  });
  for (const StoredBatch& batch : stored) {
    if (!batch.finished || !drop(batch, dropped)) continue;
    {
      std::lock_guard lock(sendingMutex);
      if (sending.contains(batch.path)) continue;
    }
    const std::uint64_t events = eventsIn(batch.path);
    if (::unlink(batch.path.c_str()) != 0) continue;
    dropped.bytes += batch.size;
    dropped.events += events;
    ++dropped.batches;
  }
  if (dropped.batches > 0) {
    platform::syncDirectory(directory);
    droppedEvents.fetch_add(dropped.events, std::memory_order_relaxed);
  }
  return dropped;
}

void Storage::State::keepWithinBound(std::size_t incoming) {
  if (maxBytes == 0) return;
  if (storedEstimate && *storedEstimate + incoming <= maxBytes) {
    *storedEstimate += incoming;
    return;
  }
  // Room before the next count: trimming to just under the bound would count again every event.
  const std::uint64_t slack = std::min<std::uint64_t>(maxBytes / 8, detail::kRollOverSize);
  const std::uint64_t target = maxBytes - slack;
  auto stored = listStored(directory);
  if (!stored) {
    storedEstimate = target;  // counted again once `slack` more bytes are written
    return;
  }
  std::uint64_t total = incoming;
  for (const auto& batch : *stored) total += batch.size;
  if (total > maxBytes) {
    const Dropped dropped = dropOldest(
        *stored, [&](const StoredBatch&, const Dropped& so) { return total - so.bytes > target; });
    total -= dropped.bytes;
    if (dropped.batches > 0 && !droppingEpisode.exchange(true)) {
      platform::printLine("Pelora: stored events pass " + std::to_string(maxBytes) + " bytes; " +
                              std::to_string(dropped.events) + " events in " +
                              std::to_string(dropped.batches) +
                              " batches were dropped, oldest first",
                          LogLevel::warning);
    }
  }
  // Still past the bound (nothing could be deleted yet): look again after `slack` more bytes.
  storedEstimate = std::min(total, target);
}

void Storage::State::dropExpired() {
  if (maxAge.count() <= 0) return;
  auto stored = listStored(directory);
  if (!stored) return;
  std::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::timespec cutoff{now.tv_sec - static_cast<std::time_t>(maxAge.count()), now.tv_nsec};
  const Dropped dropped = dropOldest(*stored, [&](const StoredBatch& batch, const Dropped&) {
    return olderThan(batch.modified, cutoff);
  });
  if (dropped.batches > 0) {
    platform::printLine("Pelora: " + std::to_string(dropped.events) + " events in " +
                            std::to_string(dropped.batches) + " batches were older than " +
                            std::to_string(maxAge.count()) + " seconds and were dropped",
                        LogLevel::warning);
  }
}

}  // namespace pelora
