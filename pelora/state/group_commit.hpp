// Group commit for the batch files: many recording threads share each fdatasync. The storage's
// batch writer calls alone() and wrote() holding the storage lock; each recording thread then calls
// waitFor() outside it. BatchFile owns the descriptor of one open batch.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace pelora::detail {

// An open batch file, shared by the storage (while it is the current batch) and a sync in progress,
// so a sync may still run on it after it was finished and closed. Closing releases the lock.
struct BatchFile {
  explicit BatchFile(int descriptor) noexcept : fd(descriptor) {}
  ~BatchFile();  // closes it, and so releases its lock
  BatchFile(const BatchFile&) = delete;
  BatchFile& operator=(const BatchFile&) = delete;
  const int fd;
};

// Group commit. Events are written under the storage lock in order; each writer then waits,
// outside the queue, until a sync that began after its write has finished. The first writer to
// find no sync running syncs the latest batch for everyone written so far; the others wait for it
// or for the next one. Finishing a batch syncs it (its closing text), which covers every event
// written before: events of one batch never follow events of a later one. A writer alone (every
// earlier event synced, nobody else on the way) has its write sync itself instead: one system call
// fewer, and nothing is left for a group to share.
struct GroupCommit {
  std::mutex mutex;
  std::condition_variable done;
  std::uint64_t written = 0;  // events written so far; changed under the storage lock and `mutex`
  // Written under `mutex`; atomic so that alone() may look without taking it.
  std::atomic<bool> syncing{false};
  std::shared_ptr<const BatchFile> latest;  // the batch the last event went to
  // Events known to be on disk; changed under `mutex`, read without it by waiters that spin.
  std::atomic<std::uint64_t> synced{0};
  // Writers that entered but have not written yet (encoding, or waiting for the write lock): a
  // sync about to start lets them write first (for a moment at most) and covers them too, instead
  // of leaving them for the next sync.
  std::atomic<int> arriving{0};

  // Under the storage lock, before a write: whether the writer is alone (every event before it
  // is on disk, no sync is running, no other writer is on its way), so that its write may carry
  // its own sync. A group shares one sync instead.
  // Without `mutex`: `written` and `soloPause` only change under the storage lock, which the
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
  // Under the storage lock, after an event was written to `file`: its ticket. `durable` when the
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
  // Under the storage lock, after a batch was synced whole.
  void allSynced() {
    std::lock_guard lock(mutex);
    synced.store(written, std::memory_order_release);
    done.notify_all();
  }
  // Returns once the event of `ticket` is on disk (as far as fdatasync can tell).
  void waitFor(std::uint64_t ticket);

 private:
  static constexpr int kSpins = 200;
  static constexpr int kSoloPause =
      1024;           // writes that share syncs after a solo write was in the way
  int soloPause = 0;  // under the storage lock
  static constexpr std::chrono::microseconds kMaxWait{200};
  std::uint64_t lastGroup = 0;            // events of the last round (see waitFor)
  std::chrono::microseconds lastSync{0};  // how long it took
};

}  // namespace pelora::detail
