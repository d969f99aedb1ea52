// Storage's background writer: moves the events that recording threads copied into the journal
// to the batch files, many per write, with the batch rules append() keeps (the first event of a
// batch without a comma, roll-over on event boundaries, the disk bound, lost events); and adopts
// the journals of dead processes. Runs holding the storage lock, like the rest of Storage::State.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "pelora/platform/logging.hpp"
#include "pelora/state/batch_writer.hpp"

namespace pelora {
namespace {

using detail::EventJournal;

// Pieces of one write: a comma and a text per event.
constexpr std::size_t kMaxPieces = 512;

// Writes every piece at `offset` (the end of the file), resuming after short writes.
bool writeAllAt(int fd, iovec* pieces, std::size_t count, off_t offset) noexcept {
  while (count > 0) {
    const ssize_t n = ::pwritev(fd, pieces, static_cast<int>(count), offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {
      errno = EIO;
      return false;
    }
    offset += n;
    auto left = static_cast<std::size_t>(n);
    while (count > 0 && left >= pieces->iov_len) {
      left -= pieces->iov_len;
      ++pieces;
      --count;
    }
    if (count > 0) {
      pieces->iov_base = static_cast<char*>(pieces->iov_base) + left;
      pieces->iov_len -= left;
    }
  }
  return true;
}

}  // namespace

void Storage::State::appendEvents(const std::vector<std::string_view>& texts,
                                  const Writing& writing,
                                  const std::function<void(std::size_t end)>& written) {
  static constexpr char kComma = ',';
  // A drain writes thousands of events at once where recording threads used to write one at a
  // time between flushes: under a small disk bound a batch is finished at a quarter of it, so
  // that the bound always finds finished batches to delete.
  const auto rollOverAt = static_cast<off_t>(
      maxBytes > 0 ? std::clamp<std::uint64_t>(maxBytes / 4, 4096, detail::kRollOverSize)
                   : detail::kRollOverSize);
  std::size_t next = 0;
  // Events of a write that failed are tried one by one up to here: an event is lost only when
  // it does not fit on its own (a disk that fills up), as it would be when written alone.
  std::size_t oneByOneUntil = 0;
  while (next < texts.size()) {
    if (!prepareBatch(rollOverAt)) {
      const int error = errno;
      for (; next < texts.size(); ++next) lost(error);
      if (written) written(next);
      return;
    }
    // As many events as the batch takes before it rolls over (at least one).
    iovec pieces[kMaxPieces];
    std::size_t count = 0;
    off_t end = size;
    std::size_t last = next;
    while (last < texts.size() && count + 2 <= kMaxPieces &&
           (last == next || (end < rollOverAt && last >= oneByOneUntil))) {
      if (hasEvents || last > next) {
        pieces[count++] = {const_cast<char*>(&kComma), 1};
        end += 1;
      }
      pieces[count++] = {const_cast<char*>(texts[last].data()), texts[last].size()};
      end += static_cast<off_t>(texts[last].size());
      ++last;
    }
    keepWithinBound(static_cast<std::size_t>(end - size));
    if (writing) writing(last, index, size);
    if (writeAllAt(fd, pieces, count, size)) {
      size = end;
      hasEvents = true;
      ++drainedWrites;
      storedAgain();
    } else {
      const int error = errno;
      // Torn events would spoil the whole batch: cut the file back to where it was.
      if (!detail::cutBack(fd, size)) closeCurrent();
      if (last - next > 1) {
        oneByOneUntil = last;
        continue;
      }
      lost(error);
    }
    next = last;
    if (written) written(next);
  }
}

void Storage::State::drainJournal() {
  if (!journal) return;
  std::uint64_t end = 0;
  const auto records = journal->published(end);
  if (!records.empty() && !refusingEvents.load(std::memory_order_relaxed)) {
    std::vector<std::string_view> texts;
    texts.reserve(records.size());
    for (const auto& record : records) texts.push_back(record.text);
    appendEvents(
        texts,
        [&](std::size_t upTo, std::uint64_t batch, off_t offset) {
          // Noted before the write: a kill during it leaves a batch that recovery cuts back to
          // `offset` before writing these records again.
          journal->setCurrentBatch(batch);
          journal->beginDrain({records[upTo - 1].end, batch, static_cast<std::uint64_t>(offset)});
        },
        [&](std::size_t upTo) { journal->release(records[upTo - 1].end); });
  }
  journal->release(end);
}

void Storage::State::discardJournal() {
  if (!journal) return;
  std::uint64_t end = 0;
  (void)journal->published(end);
  journal->release(end);
}

std::optional<Storage::State::SyncTarget> Storage::State::unsyncedDrains() const {
  const std::uint64_t synced = syncedWrites.load(std::memory_order_acquire);
  if (!file || synced >= drainedWrites) return std::nullopt;
  return SyncTarget{file, currentPath, static_cast<std::uint64_t>(size), drainedWrites};
}

bool Storage::State::namedByJournal(std::uint64_t number) const {
  const std::string owner = directory.native();
  const auto ours = journal ? journal->path() : std::filesystem::path();
  for (const auto& other : EventJournal::listFor(journalRoot, owner, ours)) {
    if (EventJournal::currentBatchOf(other, owner) == number) return true;
  }
  return false;
}

void Storage::State::recoverJournals() {
  const std::string owner = directory.native();
  const auto ours = journal ? journal->path() : std::filesystem::path();
  for (const auto& other : EventJournal::listFor(journalRoot, owner, ours)) {
    const auto dead = EventJournal::adoptDead(other, owner);
    if (!dead) continue;  // its owner lives, or someone else recovers it
    if (const auto drain = dead->unfinishedDrain()) {
      // What that drain wrote goes: its records are written again below, once.
      const std::string path = pathFor(drain->batch);
      const platform::UniqueFd batch = platform::openOwnFile(path, O_RDWR);
      if (!batch && errno != ENOENT) continue;  // tried again with the next listing
      if (batch) {
        struct stat info;
        if (!detail::tryLock(batch.get())) continue;  // being finished right now: later
        if (detail::stillNamed(batch.get(), path, info) &&
            static_cast<std::uint64_t>(info.st_size) > drain->offset &&
            !detail::cutBack(batch.get(), static_cast<off_t>(drain->offset)))
          continue;
      }
    }
    const std::vector<std::string> records = dead->recoverable();
    if (!records.empty()) {
      const std::vector<std::string_view> texts(records.begin(), records.end());
      appendEvents(texts, nullptr, nullptr);
      if (file && ::fdatasync(file->fd) != 0) continue;  // kept for the next try
      syncedWrites.store(drainedWrites, std::memory_order_release);
      platform::log::message("Event storage recovered " + std::to_string(records.size()) +
                                 " recorded events of a process that ended",
                             LogFilterKind::debug, "recoverJournals", __LINE__);
    }
    const auto named = dead->currentBatch();
    dead->remove();
    if (named) finishStale(*named);
  }
}

}  // namespace pelora
