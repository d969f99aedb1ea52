#include "pelora/state/group_commit.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora::detail {

BatchFile::~BatchFile() {
  ::close(fd);
}

void GroupCommit::waitFor(std::uint64_t ticket) {
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
        if (written - already >= lastGroup && arriving.load(std::memory_order_acquire) == 0) break;
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
      platform::log::message(
          "Event storage could not sync a batch: " + std::string(std::strerror(error)),
          LogFilterKind::error, "GroupCommit::waitFor", __LINE__);
    }
    if (synced.load(std::memory_order_relaxed) < target) {
      synced.store(target, std::memory_order_release);
    }
    done.notify_all();
  }
}

}  // namespace pelora::detail
