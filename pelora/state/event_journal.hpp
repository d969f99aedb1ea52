// EventJournal: the events a process has recorded but not yet written to a batch file, in a ring
// inside a file on a memory file system, mapped shared. The mapping belongs to the kernel, not the
// process: a SIGKILL at any instant loses nothing that append() returned from, and recording costs
// a copy into memory instead of a system call that may wait for the disk.
//
// Many recording threads append at once without a lock: each reserves its place with one
// compare-and-swap, copies its text and then publishes the record. One drainer at a time (the
// storage, under its lock) takes published records out in order and writes them to the batch
// files. Before it writes, it notes where they go (the batch and its size before the write), so
// that whoever recovers a journal after a kill can cut that batch back and write them once, never
// twice (see Drain).
//
// The owner holds an flock on the file for as long as it lives; a journal that can be locked is a
// dead process's, and the next storage of its events directory drains it (adoptDead).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelora::detail {

class EventJournal {
 public:
  // What a drain wrote where: records of the journal up to `end` went to the batch numbered
  // `batch`, appended at byte `offset` of it. Recorded in the journal before the write.
  struct Drain {
    std::uint64_t end = 0;
    std::uint64_t batch = 0;
    std::uint64_t offset = 0;
  };

  // The journals of the events directory `owner` live in one directory of their own under `root`
  // (a memory file system, see platform::Paths::journals), so that clients of other data never
  // meet.
  static std::filesystem::path directoryFor(const std::filesystem::path& root,
                                            const std::string& owner);
  // A new journal for `owner`, holding `capacity` bytes of records (rounded up to whole pages),
  // its memory allocated ahead so that no append waits for a page or finds the memory file
  // system full. Nothing (errno set) when it cannot be made.
  static std::unique_ptr<EventJournal> create(const std::filesystem::path& root,
                                              const std::string& owner, std::size_t capacity);
  // The journal files of `owner` other than `except`, oldest name first.
  static std::vector<std::filesystem::path> listFor(const std::filesystem::path& root,
                                                    const std::string& owner,
                                                    const std::filesystem::path& except);
  // Opens `file`, a journal that a process that is gone left for `owner`, and locks it; nothing
  // when its owner still runs, someone else recovers it, or it is not a journal of ours.
  static std::unique_ptr<EventJournal> adoptDead(const std::filesystem::path& file,
                                                 const std::string& owner);
  // Unmaps and closes (which lets the lock go); the file stays unless remove() was called.
  ~EventJournal();
  EventJournal(const EventJournal&) = delete;
  EventJournal& operator=(const EventJournal&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  // The largest text append() takes: a quarter of the ring, so that a large event cannot keep the
  // ring from being drained while others wait.
  std::size_t maxText() const noexcept { return capacity_ / 4 - kHeaderSize; }

  enum class Appended {
    stored,         // the text is in the journal
    storedFilling,  // stored, and a quarter of the ring is taken: the drainer should run soon
    tooLarge,       // longer than maxText(): nothing was stored
  };
  // Copies `text` in as one record. Only waits (spinning, then yielding) while the ring is full,
  // which means that the drainer is behind; `wake` is called then, to hurry it.
  Appended append(std::string_view text, void (*wake)(void*) = nullptr,
                  void* context = nullptr) noexcept;

  // Drainer side; one drainer at a time. The published records from the last released one on,
  // oldest first, up to the first that is still being copied; their texts point into the ring
  // and stay valid until release(). `end` receives the position after the last of them and of any
  // padding after it: release(end) once they are all written.
  struct Record {
    std::string_view text;
    std::uint64_t end;  // the position after it: release(end) frees it and those before
  };
  std::vector<Record> published(std::uint64_t& end) const;
  // Notes, before the write, that records up to `drain.end` are about to be appended to a batch.
  void beginDrain(const Drain& drain) noexcept;
  // The records up to `end` are in a batch file: their room is free again.
  void release(std::uint64_t end) noexcept;
  // Whether every record reserved so far has been released. Ordered with append()'s reservation,
  // so that a drainer can go idle without missing a wake-up: it clears its flag, then looks here;
  // an appender reserves, then looks at the flag (see Storage::drainRound).
  bool empty() const noexcept;
  // The number of the batch the drainer appends to, kept in the journal: while a journal names a
  // batch, only its owner or whoever recovers the journal may finish that batch.
  void setCurrentBatch(std::uint64_t number) noexcept;
  // The batch `file`, a journal of `owner` alive or dead, names; nothing when it is not one or
  // names none yet.
  static std::optional<std::uint64_t> currentBatchOf(const std::filesystem::path& file,
                                                     const std::string& owner);
  std::optional<std::uint64_t> currentBatch() const noexcept;
  // Recovery of an adopted journal: the drain that was under way when its owner died, if any
  // (its batch must be cut back to `offset` before the records are written again).
  std::optional<Drain> unfinishedDrain() const noexcept;
  // Recovery: every published record from the last released one on. Records a killed thread had
  // not finished copying (never acknowledged) are skipped.
  std::vector<std::string> recoverable() const;

  // Deletes the file; the mapping stays usable until destruction.
  void remove() noexcept;

  static constexpr std::size_t kHeaderSize = 16;  // per record

 private:
  struct Shared;
  EventJournal(std::filesystem::path path, int fd, Shared* shared, std::size_t capacity);

  std::filesystem::path path_;
  int fd_ = -1;
  Shared* shared_ = nullptr;
  char* ring_ = nullptr;
  std::size_t capacity_ = 0;
};

}  // namespace pelora::detail
