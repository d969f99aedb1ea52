#include "pelora/state/storage.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/logging.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/platform/user_defaults.hpp"
#include "pelora/state/batch_format.hpp"
#include "pelora/state/batch_writer.hpp"

namespace pelora {
namespace {

constexpr std::string_view kSuitePrefix = "com.pelora.storage.";
// The journal's room for recorded events that the writer has not written yet: tens of thousands
// of ordinary events, and 1 MiB for one event (larger ones are synced by the caller).
constexpr std::size_t kJournalCapacity = 4u << 20;

}  // namespace

std::string_view rawValue(Storage::Key key) noexcept {
  switch (key) {
    case Storage::Key::userId:
      return "pelora.userId";
    case Storage::Key::traits:
      return "pelora.traits";
    case Storage::Key::anonymousId:
      return "pelora.anonymousId";
    case Storage::Key::settings:
      return "pelora.settings";
    case Storage::Key::optedOut:
      return "pelora.optedOut";
    case Storage::Key::consent:
      return "pelora.consent";
    case Storage::Key::events:
      break;
  }
  return "pelora.events";
}

namespace detail {

std::string safeFileName(std::string_view writeKey) {
  // The encoding below only ever writes "%" before two upper-case hex digits, so "%e…" and "%h…"
  // cannot collide with it: they mark the empty key and over-long keys.
  if (writeKey.empty()) return "%empty";
  constexpr std::size_t kMaxLength = 160;  // leaves room for the suite's affixes under NAME_MAX

  std::string encoded;
  const std::size_t head = std::min(writeKey.size(), kMaxLength);
  for (const char c : platform::percentEncoded(writeKey.substr(0, head))) {
    if (c == '.') {
      encoded.append("%2E");  // so that "." and ".." never appear
    } else {
      encoded.push_back(c);
    }
  }
  if (head == writeKey.size() && !encoded.empty() && encoded.size() <= kMaxLength) return encoded;

  // Too long for a file name: a readable prefix and a hash of the whole key.
  encoded.resize(std::min(encoded.size(), kMaxLength - 18));
  if (const auto cut = encoded.find('%', encoded.size() < 2 ? 0 : encoded.size() - 2);
      cut != std::string::npos)
    encoded.resize(cut);
  char hash[17];
  std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(fnv1a(writeKey)));
  return encoded.append("%h").append(hash);
}

}  // namespace detail

Storage::Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths,
                 Durability durability)
    : store_(std::move(store)),
      writeKey_(std::move(writeKey)),
      lock_(std::string("storage.").append(platform::queueLabelSuffix)),
      state_(std::make_unique<State>()),
      drainPeriod_(std::clamp<std::chrono::nanoseconds>(
          durability.syncWindow / 4, std::chrono::milliseconds(1), std::chrono::seconds(1))) {
  if (paths.documents.empty() || paths.preferences.empty() || paths.journals.empty()) {
    const auto defaults = platform::Paths::defaults();
    if (paths.documents.empty()) paths.documents = defaults.documents;
    if (paths.preferences.empty()) paths.preferences = defaults.preferences;
    if (paths.journals.empty()) paths.journals = defaults.journals;
  }
  const std::string name = detail::safeFileName(writeKey_);
  state_->writeKey = writeKey_;
  // The key as a JSON string, so that the batch stays JSON whatever the key holds.
  state_->closingEnd = std::string(detail::kWriteKeyKey).append(toString(writeKey_)).append("}");
  state_->documents = paths.documents;
  state_->ownDirectory = std::filesystem::path("pelora") / name;
  state_->directory = state_->documents / state_->ownDirectory;
  state_->journalRoot = paths.journals;
  state_->suite = platform::UserDefaults::open(paths.preferences, std::string(kSuitePrefix) + name);
  std::uint64_t stored = 0;
  if (state_->suite) {
    if (auto value = state_->suite->get(rawValue(Key::events)))
      stored = value->uintValue().value_or(0);
  }
  state_->setIndex(stored);
  if (durability.syncEveryEvent) return;
  state_->journal =
      detail::EventJournal::create(paths.journals, state_->directory.native(), kJournalCapacity);
  if (!state_->journal) {
    platform::printLine("Pelora: no event journal in " + paths.journals.string() + " (" +
                            std::strerror(errno) + "); each event is synced as it is recorded",
                        LogLevel::warning);
    return;
  }
  drainQueue_ = platform::SerialQueue::create(
      std::string("storage.drain.").append(platform::queueLabelSuffix));
  syncQueue_ = platform::SerialQueue::create(
      std::string("storage.sync.").append(platform::queueLabelSuffix));
}

Storage::~Storage() {
  auto& journal = state_->journal;
  if (!journal) return;
  // A clean end writes out and syncs what is recorded; a journal that still holds events (the
  // disk failed) stays for the next storage of this directory.
  writeOutJournal();
  syncDrained();
  if (journal->empty()) {
    const auto directory = journal->path().parent_path();
    journal->remove();
    std::error_code ignored;
    std::filesystem::remove(directory, ignored);  // only when no other journal is in it
  }
}

std::shared_ptr<Storage> Storage::create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths, Durability durability) {
  return std::shared_ptr<Storage>(
      new Storage(std::move(store), std::move(writeKey), std::move(paths), durability));
}

std::filesystem::path Storage::eventsDirectory() const {
  state_->createDirectory();
  return state_->directory;
}

// Each block catches its own failures so that nothing unwinds through the lock.

void Storage::writeEvent(AppendText appendText, const void* event) noexcept {
  // Encoded on the caller's thread, so that recording threads encode side by side; the buffer is
  // the thread's own and keeps its memory.
  thread_local std::string text;
  try {
    text.assign(1, ',');
    appendText(text, event);
  } catch (const std::exception&) {
    return;  // not encodable (or out of memory): nothing is written
  }
  detail::EventJournal* journal = state_->journal.get();
  if (journal == nullptr) {
    appendAndSync(text);
  } else if (!state_->refusingEvents.load(std::memory_order_relaxed)) {
    // A copy into memory that outlives the process: safe from a kill once it returns.
    switch (journal->append(
        std::string_view(text).substr(1),
        [](void* self) { static_cast<Storage*>(self)->scheduleDrain(true); }, this)) {
      case detail::EventJournal::Appended::stored:
        if (!drainPending_.load(std::memory_order_seq_cst)) scheduleDrain(false);
        break;
      case detail::EventJournal::Appended::storedFilling:
        scheduleDrain(true);
        break;
      case detail::EventJournal::Appended::tooLarge:
        appendAndSync(text);  // after what the journal holds, so that order is kept
        break;
    }
  }
  // One huge event must not pin its buffer for the life of the thread.
  if (text.capacity() > (1u << 20)) std::string().swap(text);
}

void Storage::appendAndSync(const std::string& text) noexcept {
  auto& arriving = state_->commits.arriving;
  arriving.fetch_add(1, std::memory_order_acq_rel);
  const std::uint64_t ticket = lock_.sync([&]() noexcept -> std::uint64_t {
    std::uint64_t written = 0;
    try {
      state_->drainJournal();
      if (!state_->refusingEvents.load(std::memory_order_relaxed)) written = state_->append(text);
    } catch (const std::exception&) {
      // out of memory on the way: the event is lost, the host never hears of it
    }
    arriving.fetch_sub(1, std::memory_order_acq_rel);
    return written;
  });
  // Durable before the call returns; threads recording at once share one sync.
  if (ticket != 0) state_->commits.waitFor(ticket);
}

void Storage::scheduleDrain(bool urgent) noexcept {
  try {
    auto round = [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->drainRound();
    };
    if (urgent) {
      if (!drainUrgent_.exchange(true)) drainQueue_->async(std::move(round));
    } else if (!drainPending_.exchange(true, std::memory_order_seq_cst)) {
      std::lock_guard lock(drainTimerMutex_);
      if (!drainTimer_) {
        drainTimer_ = platform::TimerSource::create(drainQueue_);
        drainTimer_->setHandler(std::move(round));
        drainTimer_->resume();
      }
      drainTimer_->schedule(drainPeriod_, std::chrono::nanoseconds(0));
    }
  } catch (const std::exception&) {
    // Out of memory: the next event, flush or the end of the storage drains.
    drainPending_.store(false);
    drainUrgent_.store(false);
  }
}

void Storage::drainRound() noexcept {
  drainUrgent_.store(false);
  writeOutJournal();
  requestSync();
  drainIdle();
}

void Storage::drainIdle() noexcept {
  {
    std::lock_guard lock(drainTimerMutex_);
    if (drainTimer_) drainTimer_->cancel();
    drainTimer_.reset();
  }
  // Idle again, unless records came meanwhile. The order matters: an appender reserves its
  // record and then looks at the flag, so one of the two sees the other (see EventJournal::empty).
  drainPending_.store(false, std::memory_order_seq_cst);
  if (!state_->journal->empty()) scheduleDrain(false);
}

void Storage::writeOutJournal() noexcept {
  lock_.sync([&]() noexcept { writeOutJournalLocked(); });
}

void Storage::writeOutJournalLocked() noexcept {
  try {
    state_->drainJournal();
  } catch (const std::exception&) {
    // out of memory: the records stay for the next drain
  }
}

void Storage::requestSync() noexcept {
  if (syncPending_.exchange(true)) return;
  try {
    syncQueue_->async([weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        self->syncPending_.store(false);
        self->syncDrained();
      }
    });
  } catch (const std::exception&) {
    syncPending_.store(false);
  }
}

void Storage::syncDrained() noexcept {
  const auto target = lock_.sync([&]() noexcept -> std::optional<State::SyncTarget> {
    try {
      return state_->unsyncedDrains();
    } catch (const std::exception&) {
      return std::nullopt;
    }
  });
  if (!target) return;
  if (::fdatasync(target->file->fd) != 0) {
    platform::log::message(
        "Event storage could not sync a batch: " + std::string(std::strerror(errno)),
        LogFilterKind::error, "Storage::syncDrained", __LINE__);
    return;
  }
  auto& synced = state_->syncedWrites;
  std::uint64_t seen = synced.load(std::memory_order_acquire);
  while (seen < target->writes &&
         !synced.compare_exchange_weak(seen, target->writes, std::memory_order_acq_rel)) {
  }
  if (state_->syncObserver) state_->syncObserver(target->path, target->size);
}

void Storage::syncEvents() noexcept {
  if (!state_->journal) return;  // every event was synced as it was written
  writeOutJournal();
  syncDrained();
  drainIdle();
}

void Storage::setSyncObserver(
    std::function<void(const std::filesystem::path&, std::uint64_t)> observer) {
  lock_.sync([&] { state_->syncObserver = std::move(observer); });
}

void Storage::writeValue(Key key, std::optional<JSON> value) noexcept {
  lock_.sync([&]() noexcept {
    auto& suite = state_->suite;
    if (!suite) return;
    try {
      if (value) {
        suite->set(rawValue(key), std::move(*value));
      } else {
        suite->remove(rawValue(key));
      }
    } catch (const std::exception&) {
      return;
    }
    suite->synchronize();
  });
}

std::optional<JSON> Storage::readValue(Key key) noexcept {
  return lock_.sync([&]() noexcept -> std::optional<JSON> {
    if (!state_->suite) return std::nullopt;
    try {
      return state_->suite->get(rawValue(key));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  });
}

void Storage::reloadSuite() {
  lock_.sync([&]() noexcept {
    if (state_->suite) state_->suite->reload();
  });
}

void Storage::refuseEvents(bool refuse) {
  lock_.sync([&]() noexcept {
    if (refuse) writeOutJournalLocked();  // recorded before the choice: they stay
    state_->refusingEvents.store(refuse, std::memory_order_relaxed);
  });
}

std::size_t Storage::eraseStoredEvents() {
  return lock_.sync([&]() noexcept -> std::size_t {
    try {
      return state_->eraseAll();
    } catch (const std::exception&) {
      return 0;
    }
  });
}

std::vector<std::filesystem::path> Storage::finishAndList() noexcept {
  return lock_.sync([&]() noexcept -> std::vector<std::filesystem::path> {
    try {
      return state_->finishAndList();
    } catch (const std::exception&) {
      return {};
    }
  });
}

void Storage::setLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge) {
  lock_.sync([&]() noexcept {
    state_->maxBytes = maxBytes;
    state_->maxAge = maxAge;
    state_->known.reset();  // counted afresh against the new bound
  });
}

std::uint64_t Storage::droppedEvents() noexcept {
  if (state_->journal && !state_->journal->empty()) {
    writeOutJournal();
  }
  return state_->droppedEvents.load(std::memory_order_relaxed);
}

void Storage::markSending(const std::filesystem::path& file, bool sending) {
  std::lock_guard lock(state_->sendingMutex);
  if (sending) {
    state_->sending.insert(file.native());
  } else {
    state_->sending.erase(file.native());
  }
}

void UploadClaim::release() noexcept {
  if (fd_ >= 0) ::close(fd_);  // releases the flock
  fd_ = -1;
}

UploadClaim Storage::claimUploads() const {
  if (!state_->createDirectory()) return {};
  // A hidden file: listings skip it and it never looks like a batch.
  platform::UniqueFd file =
      platform::openOwnFile(state_->directory / detail::kUploadsLockName, O_RDWR | O_CREAT);
  if (!file || !detail::tryLock(file.get())) return {};
  return UploadClaim(file.release());
}

void Storage::remove(const std::filesystem::path& file) {
  if (::unlink(file.c_str()) != 0) {
    throw std::filesystem::filesystem_error("Unable to remove batch file", file,
                                            std::error_code(errno, std::generic_category()));
  }
  state_->directoryChanges.fetch_add(1, std::memory_order_release);
  // Batches are delivered again: a later drop by the disk bound is news once more.
  state_->droppingEpisode.store(false, std::memory_order_relaxed);
}

}  // namespace pelora
