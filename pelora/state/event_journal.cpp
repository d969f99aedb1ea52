#include "pelora/state/event_journal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/state/batch_format.hpp"

namespace pelora::detail {
namespace {

constexpr char kMagic[8] = {'P', 'E', 'L', 'J', 'R', 'N', 'L', '1'};
constexpr std::size_t kPage = 4096;
constexpr std::string_view kExtension = ".journal";
// The word after a record's length: its top byte is never 0, so that no length (nor any text,
// which as JSON never holds a NUL byte) can pass for a stamp when recovery looks for records.
constexpr std::uint32_t kFiller = 0xFFFFFFFFu;

constexpr std::uint64_t publishedStamp(std::uint64_t position) noexcept {
  return position | 1;
}
constexpr std::uint64_t paddingStamp(std::uint64_t position) noexcept {
  return position | 2;
}
constexpr std::uint64_t roundUp(std::uint64_t n, std::uint64_t to) noexcept {
  return (n + to - 1) / to * to;
}

std::string hex(std::uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

// The first page of the file. Producers of every thread touch `tail`; the drainer `head` and the
// drain record: each on a cache line of its own.
struct EventJournal::Shared {
  char magic[8];
  std::uint64_t capacity;
  std::uint64_t ownerHash;
  alignas(64) std::atomic<std::uint64_t> tail;  // reserved up to here
  alignas(64) std::atomic<std::uint64_t> head;  // released up to here
  // A drain is under way while drainEnd > head.
  std::atomic<std::uint64_t> drainEnd;
  std::atomic<std::uint64_t> drainBatch;
  std::atomic<std::uint64_t> drainOffset;
  std::atomic<std::uint64_t> currentBatch;  // its number + 1; 0 while it names none
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free,
              "the ring's counters are shared between processes");

std::filesystem::path EventJournal::directoryFor(const std::filesystem::path& root,
                                                 const std::string& owner) {
  return root / ("pelora-journals-" + std::to_string(::getuid())) / hex(fnv1a(owner));
}

EventJournal::EventJournal(std::filesystem::path path, int fd, Shared* shared, std::size_t capacity)
    : path_(std::move(path)),
      fd_(fd),
      shared_(shared),
      ring_(reinterpret_cast<char*>(shared) + kPage),
      capacity_(capacity) {}

EventJournal::~EventJournal() {
  ::munmap(shared_, kPage + capacity_);
  ::close(fd_);  // lets the lock go
}

std::unique_ptr<EventJournal> EventJournal::create(const std::filesystem::path& root,
                                                   const std::string& owner, std::size_t capacity) {
  static_assert(sizeof(Shared) <= kPage);
  capacity = roundUp(std::max<std::size_t>(capacity, 4 * kPage), kPage);
  const auto directory = directoryFor(root, owner);
  if (!platform::makePrivateDirectory(root, directory.lexically_relative(root))) return nullptr;
  std::string name = (directory / (std::to_string(::getpid()) + "-XXXXXX")).native();
  platform::UniqueFd file = platform::createTemporaryFile(name);
  if (!file) return nullptr;
  std::string path = name + std::string(kExtension);
  auto fail = [&](int error) -> std::unique_ptr<EventJournal> {
    ::unlink(name.c_str());
    ::unlink(path.c_str());
    errno = error;
    return nullptr;
  };
  // Locked before it has its final name: nobody may take it for a dead process's.
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) return fail(errno);
  // Allocated now: a write into a page the memory file system has no room for would kill the
  // process (SIGBUS) instead of failing.
  if (const int error = ::posix_fallocate(file.get(), 0, static_cast<off_t>(kPage + capacity))) {
    return fail(error);
  }
  void* memory = ::mmap(nullptr, kPage + capacity, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_POPULATE, file.get(), 0);
  if (memory == MAP_FAILED) return fail(errno);
  auto* shared = new (memory) Shared{};
  std::memcpy(shared->magic, kMagic, sizeof kMagic);
  shared->capacity = capacity;
  shared->ownerHash = fnv1a(owner);
  if (::rename(name.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::munmap(memory, kPage + capacity);
    return fail(error);
  }
  return std::unique_ptr<EventJournal>(new EventJournal(path, file.release(), shared, capacity));
}

std::vector<std::filesystem::path> EventJournal::listFor(const std::filesystem::path& root,
                                                         const std::string& owner,
                                                         const std::filesystem::path& except) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directoryFor(root, owner), error), end;
       !error && it != end; it.increment(error)) {
    if (it->path().extension() == kExtension && it->path() != except) files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::unique_ptr<EventJournal> EventJournal::adoptDead(const std::filesystem::path& file,
                                                      const std::string& owner) {
  platform::UniqueFd fd = platform::openOwnFile(file.native(), O_RDWR);
  if (!fd || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return nullptr;
  struct stat info;
  if (::fstat(fd.get(), &info) != 0 || info.st_nlink == 0 ||
      static_cast<std::size_t>(info.st_size) < kPage + 4 * kPage) {
    return nullptr;
  }
  const std::size_t size = static_cast<std::size_t>(info.st_size);
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) return nullptr;
  auto* shared = static_cast<Shared*>(memory);
  const std::size_t capacity = size - kPage;
  const std::uint64_t head = shared->head.load(std::memory_order_acquire);
  const std::uint64_t tail = shared->tail.load(std::memory_order_acquire);
  if (std::memcmp(shared->magic, kMagic, sizeof kMagic) != 0 || shared->capacity != capacity ||
      capacity % kPage != 0 || shared->ownerHash != fnv1a(owner) || head > tail ||
      tail - head > capacity || head % 8 != 0) {
    ::munmap(memory, size);
    return nullptr;
  }
  return std::unique_ptr<EventJournal>(new EventJournal(file, fd.release(), shared, capacity));
}

EventJournal::Appended EventJournal::append(std::string_view text, void (*wake)(void*),
                                            void* context) noexcept {
  if (text.size() > maxText()) return Appended::tooLarge;
  const std::uint64_t size = kHeaderSize + roundUp(text.size(), 8);
  std::uint64_t reserved = shared_->tail.load(std::memory_order_relaxed);
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  for (int waits = 0;; ++waits) {
    // A record never wraps: when it does not fit before the end of the ring, the rest of the lap
    // is padding and the record starts the next one.
    const std::uint64_t left = capacity_ - reserved % capacity_;
    start = left < size ? reserved + left : reserved;
    end = start + size;
    if (end - shared_->head.load(std::memory_order_acquire) > capacity_) {
      // Full: the drainer is behind (a slow or failing disk). Hurry it, then wait for room.
      if (wake && waits == 0) wake(context);
      if (waits < 100) {
        cpuRelax();
      } else if (waits < 1000) {
        std::this_thread::yield();
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      reserved = shared_->tail.load(std::memory_order_relaxed);
      continue;
    }
    // Sequentially consistent, like empty(): a drainer that goes idle and then finds the ring
    // empty is sure that the appender will see it idle and wake it.
    if (shared_->tail.compare_exchange_weak(reserved, end, std::memory_order_seq_cst,
                                            std::memory_order_relaxed)) {
      break;
    }
  }
  if (start != reserved) {
    std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(ring_ + reserved % capacity_))
        .store(paddingStamp(reserved), std::memory_order_release);
  }
  char* record = ring_ + start % capacity_;
  const auto length = static_cast<std::uint32_t>(text.size());
  std::memcpy(record + 8, &length, sizeof length);
  std::memcpy(record + 12, &kFiller, sizeof kFiller);
  std::memcpy(record + kHeaderSize, text.data(), text.size());
  std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(record))
      .store(publishedStamp(start), std::memory_order_release);
  return end - shared_->head.load(std::memory_order_relaxed) > capacity_ / 4
             ? Appended::storedFilling
             : Appended::stored;
}

std::vector<EventJournal::Record> EventJournal::published(std::uint64_t& end) const {
  std::vector<Record> records;
  std::uint64_t at = shared_->head.load(std::memory_order_relaxed);
  const std::uint64_t tail = shared_->tail.load(std::memory_order_acquire);
  while (at < tail) {
    const std::uint64_t offset = at % capacity_;
    const std::uint64_t stamp =
        std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(ring_ + offset))
            .load(std::memory_order_acquire);
    if (stamp == paddingStamp(at)) {
      at += capacity_ - offset;
      continue;
    }
    if (stamp != publishedStamp(at)) break;  // still being copied: the next drain takes it
    std::uint32_t length = 0;
    std::memcpy(&length, ring_ + offset + 8, sizeof length);
    at += kHeaderSize + roundUp(length, 8);
    records.push_back({std::string_view(ring_ + offset + kHeaderSize, length), at});
  }
  end = at;
  return records;
}

void EventJournal::beginDrain(const Drain& drain) noexcept {
  shared_->drainBatch.store(drain.batch, std::memory_order_relaxed);
  shared_->drainOffset.store(drain.offset, std::memory_order_relaxed);
  shared_->drainEnd.store(drain.end, std::memory_order_release);
}

void EventJournal::release(std::uint64_t end) noexcept {
  shared_->head.store(end, std::memory_order_release);
}

bool EventJournal::empty() const noexcept {
  return shared_->head.load(std::memory_order_seq_cst) ==
         shared_->tail.load(std::memory_order_seq_cst);
}

void EventJournal::setCurrentBatch(std::uint64_t number) noexcept {
  shared_->currentBatch.store(number + 1, std::memory_order_release);
}

std::optional<std::uint64_t> EventJournal::currentBatch() const noexcept {
  const std::uint64_t stored = shared_->currentBatch.load(std::memory_order_acquire);
  if (stored == 0) return std::nullopt;
  return stored - 1;
}

std::optional<std::uint64_t> EventJournal::currentBatchOf(const std::filesystem::path& file,
                                                          const std::string& owner) {
  platform::UniqueFd fd = platform::openOwnFile(file.native(), O_RDONLY);
  struct stat info;
  if (!fd || ::fstat(fd.get(), &info) != 0 || info.st_size < static_cast<off_t>(kPage)) {
    return std::nullopt;
  }
  void* memory = ::mmap(nullptr, kPage, PROT_READ, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) return std::nullopt;
  const auto* shared = static_cast<const Shared*>(memory);
  std::optional<std::uint64_t> number;
  if (std::memcmp(shared->magic, kMagic, sizeof kMagic) == 0 && shared->ownerHash == fnv1a(owner)) {
    if (const std::uint64_t stored = shared->currentBatch.load(std::memory_order_acquire))
      number = stored - 1;
  }
  ::munmap(memory, kPage);
  return number;
}

std::optional<EventJournal::Drain> EventJournal::unfinishedDrain() const noexcept {
  const std::uint64_t head = shared_->head.load(std::memory_order_acquire);
  const std::uint64_t end = shared_->drainEnd.load(std::memory_order_acquire);
  if (end <= head) return std::nullopt;
  return Drain{end, shared_->drainBatch.load(std::memory_order_relaxed),
               shared_->drainOffset.load(std::memory_order_relaxed)};
}

std::vector<std::string> EventJournal::recoverable() const {
  std::vector<std::string> texts;
  std::uint64_t at = shared_->head.load(std::memory_order_acquire);
  const std::uint64_t tail = shared_->tail.load(std::memory_order_acquire);
  auto stampAt = [&](std::uint64_t position) {
    std::uint64_t stamp;
    std::memcpy(&stamp, ring_ + position % capacity_, sizeof stamp);
    return stamp;
  };
  while (at < tail) {
    const std::uint64_t offset = at % capacity_;
    const std::uint64_t stamp = stampAt(at);
    if (stamp == paddingStamp(at)) {
      at += capacity_ - offset;
      continue;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, ring_ + offset + 8, sizeof length);
    if (stamp == publishedStamp(at) && length <= maxText() &&
        offset + kHeaderSize + length <= capacity_) {
      texts.emplace_back(ring_ + offset + kHeaderSize, length);
      at += kHeaderSize + roundUp(length, 8);
      continue;
    }
    // A record its thread never finished (killed while copying): its length may be unwritten,
    // so look for the next place that holds the stamp of its own position.
    do {
      at += 8;
    } while (at < tail && stampAt(at) != publishedStamp(at) && stampAt(at) != paddingStamp(at));
  }
  return texts;
}

void EventJournal::remove() noexcept {
  ::unlink(path_.c_str());
}

}  // namespace pelora::detail
