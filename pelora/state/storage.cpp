#include "pelora/state/storage.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <system_error>

#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/private_files.hpp"
#include "pelora/platform/user_defaults.hpp"
#include "pelora/state/batch_format.hpp"
#include "pelora/state/batch_writer.hpp"

namespace pelora {
namespace {

constexpr std::string_view kSuitePrefix = "com.pelora.storage.";

}  // namespace

std::string_view rawValue(Storage::Constants key) noexcept {
  switch (key) {
    case Storage::Constants::userId:
      return "pelora.userId";
    case Storage::Constants::traits:
      return "pelora.traits";
    case Storage::Constants::anonymousId:
      return "pelora.anonymousId";
    case Storage::Constants::settings:
      return "pelora.settings";
    case Storage::Constants::optedOut:
      return "pelora.optedOut";
    case Storage::Constants::consent:
      return "pelora.consent";
    case Storage::Constants::events:
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

Storage::Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths)
    : store_(std::move(store)),
      writeKey_(std::move(writeKey)),
      queue_(std::string("storage.").append(platform::queueLabelSuffix)),
      state_(std::make_unique<State>()) {
  if (paths.documents.empty() || paths.preferences.empty()) {
    const auto defaults = platform::Paths::defaults();
    if (paths.documents.empty()) paths.documents = defaults.documents;
    if (paths.preferences.empty()) paths.preferences = defaults.preferences;
  }
  const std::string name = detail::safeFileName(writeKey_);
  state_->writeKey = writeKey_;
  // The key as a JSON string, so that the batch stays JSON whatever the key holds.
  state_->closingEnd = std::string(detail::kWriteKeyKey).append(toString(writeKey_)).append("}");
  state_->documents = paths.documents;
  state_->ownDirectory = std::filesystem::path("pelora") / name;
  state_->directory = state_->documents / state_->ownDirectory;
  state_->suite = platform::UserDefaults::open(paths.preferences, std::string(kSuitePrefix) + name);
  std::uint64_t stored = 0;
  if (state_->suite) {
    if (auto value = state_->suite->get(rawValue(Constants::events)))
      stored = value->uintValue().value_or(0);
  }
  state_->setIndex(stored);
}

Storage::~Storage() = default;

std::shared_ptr<Storage> Storage::create(std::shared_ptr<Store> store, std::string writeKey,
                                         platform::Paths paths) {
  return std::shared_ptr<Storage>(
      new Storage(std::move(store), std::move(writeKey), std::move(paths)));
}

std::filesystem::path Storage::eventsDirectory() const {
  state_->createDirectory();
  return state_->directory;
}

// Each block catches its own failures so that nothing unwinds through the queue.

void Storage::writeEvent(AppendText appendText, const void* event) noexcept {
  // Encoded on the caller's thread, so that recording threads encode side by side and hold the
  // queue only for the write; the buffer is the thread's own and keeps its memory.
  thread_local std::string text;
  auto& arriving = state_->commits.arriving;
  arriving.fetch_add(1, std::memory_order_acq_rel);
  try {
    text.assign(1, ',');
    appendText(text, event);
  } catch (const std::exception&) {
    arriving.fetch_sub(1, std::memory_order_acq_rel);
    return;  // not encodable (or out of memory): nothing is written
  }
  const std::uint64_t ticket = queue_.sync([&]() noexcept -> std::uint64_t {
    std::uint64_t written = 0;
    try {
      if (!state_->refusingEvents) written = state_->append(text);
    } catch (const std::exception&) {
      // out of memory on the way: the event is lost, the host never hears of it
    }
    arriving.fetch_sub(1, std::memory_order_acq_rel);
    return written;
  });
  // Durable before the call returns; threads recording at once share one sync.
  if (ticket != 0) state_->commits.waitFor(ticket);
  // One huge event must not pin its buffer for the life of the thread.
  if (text.capacity() > (1u << 20)) std::string().swap(text);
}

void Storage::writeValue(Constants key, std::optional<JSON> value) noexcept {
  queue_.sync([&]() noexcept {
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

std::optional<JSON> Storage::readValue(Constants key) noexcept {
  return queue_.sync([&]() noexcept -> std::optional<JSON> {
    if (!state_->suite) return std::nullopt;
    try {
      return state_->suite->get(rawValue(key));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  });
}

void Storage::reloadSuite() {
  queue_.sync([&]() noexcept {
    if (state_->suite) state_->suite->reload();
  });
}

void Storage::refuseEvents(bool refuse) {
  queue_.sync([&]() noexcept { state_->refusingEvents = refuse; });
}

std::size_t Storage::eraseStoredEvents() {
  return queue_.sync([&]() noexcept -> std::size_t {
    try {
      return state_->eraseAll();
    } catch (const std::exception&) {
      return 0;
    }
  });
}

std::vector<std::filesystem::path> Storage::finishAndList() noexcept {
  return queue_.sync([&]() noexcept -> std::vector<std::filesystem::path> {
    try {
      return state_->finishAndList();
    } catch (const std::exception&) {
      return {};
    }
  });
}

void Storage::setLimits(std::uint64_t maxBytes, std::chrono::seconds maxAge) {
  queue_.sync([&]() noexcept {
    state_->maxBytes = maxBytes;
    state_->maxAge = maxAge;
    state_->known.reset();  // counted afresh against the new bound
  });
}

std::uint64_t Storage::droppedEvents() const noexcept {
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
