// Storage's lock-guarded part, Storage::State: the suite, the event-file index and the open batch
// file; appending, finishing and listing batches (batch_writer.cpp) and recovering what crashed
// writers left (batch_recovery.cpp). Every member function runs holding the storage lock.
//
// Several writers may share an events directory: two clients of one process, or two processes of
// one application. Each writes only to a batch file it holds an exclusive flock on, from opening it
// until it is finished and renamed, so a file has one writer at a time and a crashed writer's lock
// goes with it. A writer that finds its next file locked moves on to the next number; unlocked
// unfinished files are a crashed writer's, and are repaired and finished by whoever comes next.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "pelora/platform/private_files.hpp"
#include "pelora/platform/user_defaults.hpp"
#include "pelora/state/batch_format.hpp"
#include "pelora/state/event_journal.hpp"
#include "pelora/state/group_commit.hpp"
#include "pelora/state/storage.hpp"

namespace pelora {
namespace detail {

// The function name that batch failures are logged under.
inline constexpr std::string_view kFinishFunction = "finish(file:)";

// Writes all of `text` at the end of `fd` (opened with O_APPEND).
bool writeAll(int fd, std::string_view text) noexcept;
// A batch file of ours as the disk bound sees it.
struct StoredBatch {
  std::string path;
  std::uint64_t size = 0;
  struct timespec modified {};
  bool finished = false;  // finished or refused: the bound may delete it
};

// What the disk bound knows of the stored batches since it last listed them.
struct KnownBatches {
  std::deque<StoredBatch> finished;  // oldest first: what the bound may delete
  std::uint64_t bytes = 0;           // every stored batch, open ones included
  std::uint64_t writtenSince = 0;    // by this writer since the listing
  std::uint64_t changesSeen = 0;     // State::directoryChanges at the listing
  bool stuck = false;                // nothing more could be deleted: wait for the next listing
};

// The first `size` bytes of `fd`; nothing when they cannot be read.
std::optional<std::string> readAll(int fd, off_t size);
// Drops a torn tail.
bool cutBack(int fd, off_t size) noexcept;
// Renames without ever replacing `to`; 0 or the errno of the failure.
int renameNoReplace(const char* from, const char* to) noexcept;
// Renames `from` to `stem` + `extension`, or when that name is taken to `stem` + ".<n>" +
// `extension` for the first free n below 100; 0 or the errno of the failure. `chosen`, when
// given, receives the name it got.
int renameToFreeName(const std::string& from, const std::string& stem, std::string_view extension,
                     std::string* chosen = nullptr) noexcept;
// Every writer of a batch file, in this process or another, holds an exclusive flock on it for as
// long as it has it open; a file that cannot be locked belongs to a live writer.
bool tryLock(int fd) noexcept;
// Whether `path` still names the file open as `fd` (someone may have renamed or deleted it
// between our open and our lock); `info` receives the open file's status. A link to it does not.
bool stillNamed(int fd, const std::string& path, struct stat& info) noexcept;
// Whether a batch name failed to open because what has the name is not a batch file of ours (a
// link, a directory, a stranger's file): it is set aside, never followed or written to.
bool notOurs(int error) noexcept;

}  // namespace detail

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
  std::shared_ptr<const detail::BatchFile> file;
  off_t size = 0;  // its size: only this writer changes it while it holds the lock
  bool hasEvents = false;
  // When the open batch was last seen to still have a name (see append).
  std::chrono::nanoseconds lastLinkCheck{0};  // coarseNow()
  // Whether writes that sync themselves (RWF_DSYNC) work on this kernel and file system.
  bool syncedWritesWork = true;
  std::uint64_t lostEvents = 0;  // since the last event that was stored
  // See Storage::refuseEvents. Changed holding the lock; recording threads look without it.
  std::atomic<bool> refusingEvents{false};
  detail::GroupCommit commits;

  // The background writer (journal_writer.cpp). Recorded events wait in `journal` until a drain
  // appends them to the batches; null when every event syncs its own write (syncEveryEvent, or
  // no journal could be made). Journals live under `journalRoot`, named for `directory`.
  std::unique_ptr<detail::EventJournal> journal;
  std::filesystem::path journalRoot;
  std::uint64_t drainedWrites = 0;             // writes of drains so far
  std::atomic<std::uint64_t> syncedWrites{0};  // how many of them a finished sync covers
  std::function<void(const std::filesystem::path&, std::uint64_t)> syncObserver;

  // The disk bound (disk_bound.cpp). What it knows of the directory is kept from one listing to
  // the next: with thousands of batches stored, listing them for every roll-over would make each
  // event cost more the longer the device is offline.
  std::uint64_t maxBytes = 0;
  std::chrono::seconds maxAge{0};
  std::optional<detail::KnownBatches> known;
  // Batches removed, split or set aside by delivery (off the queue) since the State began: a
  // listing older than the last of them may count bytes that are gone.
  std::atomic<std::uint64_t> directoryChanges{0};
  std::atomic<std::uint64_t> droppedEvents{0};
  std::atomic<bool> droppingEpisode{false};  // logged already; a delivered batch ends it
  // Finished batches being uploaded, which the bound must not delete. Changed off the queue.
  std::mutex sendingMutex;
  std::set<std::string> sending;

  ~State() { closeCurrent(); }

  // False when the events directory cannot be made, or is not ours to keep batches in.
  bool createDirectory() const noexcept {
    return platform::makePrivateDirectory(documents, ownDirectory);
  }

  std::string pathFor(std::uint64_t number) const {
    return directory / detail::eventsFileName(number);
  }

  void setIndex(std::uint64_t value) {
    index = value;
    currentPath = pathFor(index);
  }

  void storeIndex(std::uint64_t value);

  void advanceIndex() { storeIndex(index + 1); }

  // The current number is taken (finished, or another writer's): goes past every number in use at
  // once. Stepping one by one, a writer far behind another would walk through each of the other's
  // batches, and could run out of tries before finding a free number (losing the event).
  void skipTakenNumbers();

  void closeCurrent() noexcept {
    file.reset();  // closes it (and so releases the lock) unless a sync still runs on it
    fd = -1;
    hasEvents = false;
  }

  enum class Closing { written, notWritten, torn };

  // Appends `],"sentAt":"<now>","writeKey":"<key>"}`. On failure the file is cut back to what it
  // was, so a later finish can try again, and the batch is reported. `torn` when even the cut
  // failed: then nothing may be appended to this descriptor (recovery cuts the tail on reopening).
  Closing appendClosing(int file, const std::string& path);

  // Moves a closed batch to its ".temp" name, never over an existing one (which a crash or a
  // stranger may have left); then the name gets a number before ".temp". Returns the new name,
  // or nothing when the rename failed.
  std::optional<std::string> moveToTemp(const std::string& path);

  // A file named like a batch that is none of ours (its text, or a link, a directory, a stranger's
  // file, which the rename does not follow): kept for a person to look at, out of the way. When no
  // name is free it stays where it is, and writers pass it by.
  void setAside(const std::string& path);

  enum class Found { open, finished, nothing };

  // Brings an unfinished batch that a crashed writer left (and that we have just locked) into a
  // state we can append to: a torn event or torn closing text is cut back to the end of the last
  // whole event. A batch that turns out to be closed is moved to ".temp"; an empty or foreign one
  // is removed or set aside. `hasEventsOut` tells whether an open one holds an event.
  Found repair(int file, const std::string& path, off_t size, bool& hasEventsOut);

  // Opens the current batch file for appending into `fd`, locked, creating it with the batch
  // header when `create` is set. A file that another writer holds, or that turns out to be
  // finished, moves the index on.
  bool openCurrent(bool create);

  // Closes the current batch, moves it to ".temp" and advances the index. A missing file, or one
  // holding no event, is left alone: no empty batch, and the index stays. The file is renamed
  // before its lock goes, so that no other writer can take it for an unfinished one.
  void finish();

  // Finishes the unfinished batch `number` when no writer holds it (a crashed one's) and no
  // journal names it.
  void finishStale(std::uint64_t number);

  // The unfinished batches in the directory other than our own current one, and the number after
  // the highest one in use. Nothing when the directory cannot be listed.
  std::optional<std::vector<std::uint64_t>> unfinishedBatches(std::uint64_t& next) const;

  // First use on the queue. The stored index holds unless the files are ahead of it: a crash
  // between the rename and storing the index leaves a ".temp" at the stored index, a lost suite
  // leaves files above it. Unfinished files below the index (a crashed writer's, or a rename that
  // failed earlier) are repaired and finished now; ones that hold no event are deleted. Tried
  // again while the directory cannot be listed. False when there is no directory of ours to keep
  // batches in (errno says why).
  bool recover();

  // Appends `text` ("," + one event's text) to the current batch. Returns the event's ticket
  // for GroupCommit::waitFor, or 0 when nothing was written.
  std::uint64_t append(std::string_view text);

  // Before an append: the directory is recovered and the current batch is open, still named and
  // below `rollOverAt` bytes (a full one is finished first). False (errno set) when no batch
  // could be opened.
  bool prepareBatch(off_t rollOverAt);

  // Appends `texts` (events without their commas) to the current batch with as few writes as
  // may be, rolling over where append() would. Before each write, `writing(end, batch, offset)`
  // learns that the texts before index `end` go to batch number `batch` at byte `offset`; after
  // it, `written(end)` learns that they are dealt with (written, or lost as append() loses them).
  using Writing = std::function<void(std::size_t end, std::uint64_t batch, off_t offset)>;
  void appendEvents(const std::vector<std::string_view>& texts, const Writing& writing,
                    const std::function<void(std::size_t end)>& written);
  // Appends the journal's published records to the batches and releases them; discards them
  // while refusing events.
  void drainJournal();
  // Releases every published record of the journal unwritten.
  void discardJournal();

  // What a sync must cover for every drained write to be on disk: the open batch, its name and
  // size, and the count of drained writes it covers. Nothing when they are all synced.
  struct SyncTarget {
    std::shared_ptr<const detail::BatchFile> file;
    std::filesystem::path path;
    std::uint64_t size = 0;
    std::uint64_t writes = 0;
  };
  std::optional<SyncTarget> unsyncedDrains() const;

  // Whether a journal other than ours, of a live process or a dead one, names batch `number` as
  // its current one: then only its owner, or whoever recovers the journal, may finish it.
  bool namedByJournal(std::uint64_t number) const;
  // Adopts the journals that dead processes left for this directory: cuts back a batch that a
  // drain was writing when its owner died, appends their records to our batches, syncs them,
  // deletes the journals and finishes the batches they named.
  void recoverJournals();

  // An event that found no room (or a failing disk) is lost: the host hears of the first of a run
  // of them and, once events are stored again, how many there were.
  std::uint64_t lost(int error);
  // An event was stored: the host hears how many were lost before it, if any.
  void storedAgain();

  // Finishes the current batch and those that crashed writers left, and lists the finished ones.
  std::vector<std::filesystem::path> finishAndList();

  // Deletes every batch file in the directory, ours and other writers', open or finished; returns
  // how many went.
  std::size_t eraseAll();

  // Before `incoming` more bytes are appended: keeps the stored batches within maxBytes,
  // deleting the oldest finished ones when they would pass it.
  void keepWithinBound(std::size_t incoming);
  // Deletes finished batches older than maxAge.
  void dropExpired();
  // Lists the directory into `known`; false when it cannot be listed.
  bool listKnown();

  struct Dropped {
    std::uint64_t bytes = 0;
    std::uint64_t events = 0;
    std::uint64_t batches = 0;
  };
  // Deletes finished batches of `known`, oldest first, for as long as `drop` says so for the next
  // one; never one being uploaded. Counts their events as dropped.
  Dropped dropOldest(const std::function<bool(const detail::StoredBatch&)>& drop);
};

}  // namespace pelora
