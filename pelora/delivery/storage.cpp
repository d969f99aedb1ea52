#include "pelora/delivery/storage.hpp"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <system_error>

#include "pelora/log/log.hpp"
#include "pelora/platform/clock.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/user_defaults.hpp"

namespace pelora {
namespace {

constexpr std::string_view kSuitePrefix = "com.pelora.storage.";
constexpr std::string_view kFileSuffix = "-pelora-events";
constexpr std::string_view kTempExtension = ".temp";
constexpr std::string_view kBatchHeader = "{ \"batch\": [";
constexpr std::string_view kSentAtKey = "],\"sentAt\":\"";
constexpr std::string_view kWriteKeyKey = "\",\"writeKey\":\"";
constexpr std::string_view kClosingEnd = "\"}";
constexpr off_t kHeaderSize = static_cast<off_t>(kBatchHeader.size());
constexpr off_t kRollOverSize = 475'000;
constexpr std::string_view kFinishFunction = "finish(file:)";

std::string eventsFileName(std::uint64_t index) {
  return std::to_string(index).append(kFileSuffix);
}

// "<n>-pelora-events" (open) or "<n>-pelora-events.temp" (finished).
struct EventsFileName {
  std::uint64_t index;
  bool finished;
};

std::optional<EventsFileName> parseEventsFileName(std::string_view name) {
  const bool finished = name.ends_with(kTempExtension);
  if (finished) name.remove_suffix(kTempExtension.size());
  if (!name.ends_with(kFileSuffix)) return std::nullopt;
  name.remove_suffix(kFileSuffix.size());
  std::uint64_t index = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
  if (name.empty() || error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return EventsFileName{index, finished};
}

bool writeAll(int fd, const char* data, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(int fd, std::string_view text) noexcept {
  return writeAll(fd, text.data(), text.size());
}

// Drops a torn tail after a failed write.
bool cutBack(int fd, off_t size) noexcept {
  return ::ftruncate(fd, size) == 0;
}

// A rename or a new file is durable only once its directory is.
void syncDirectory(const std::filesystem::path& directory) noexcept {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// Renames without ever replacing `to`; 0 or the errno of the failure.
int renameNoReplace(const char* from, const char* to) noexcept {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without RENAME_NOREPLACE: link() refuses an existing name as well.
  if (::link(from, to) != 0) return errno;
  ::unlink(from);
  return 0;
}

std::uint64_t fnv1a(std::string_view bytes) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3ull;
  return hash;
}

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
  if (char* escaped = curl_easy_escape(nullptr, writeKey.data(), static_cast<int>(head))) {
    for (const char* p = escaped; *p != '\0'; ++p) {
      if (*p == '.') {
        encoded.append("%2E");  // so that "." and ".." never appear
      } else {
        encoded.push_back(*p);
      }
    }
    curl_free(escaped);
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

// The queue-confined part of Storage: the suite, the index and the open batch file. Every member
// function runs on the storage queue only.
struct Storage::State {
  std::string writeKey;
  std::filesystem::path directory;
  std::optional<platform::UserDefaults> suite;

  bool recovered = false;
  std::uint64_t index = 0;
  std::string currentPath;  // directory / "<index>-pelora-events"

  // The open current batch, and whether it holds an event yet.
  int fd = -1;
  bool hasEvents = false;

  std::string buffer;  // "," + event text; reused so that appending rarely allocates

  ~State() { closeCurrent(); }

  void createDirectory() const noexcept {
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
  }

  std::string pathFor(std::uint64_t number) const { return directory / eventsFileName(number); }

  void setIndex(std::uint64_t value) {
    index = value;
    currentPath = pathFor(index);
  }

  void storeIndex(std::uint64_t value) {
    setIndex(value);
    if (!suite) return;
    suite->set(rawValue(Constants::events), JSON(index));
    suite->synchronize();  // on failure the suite retries with its next write
  }

  void advanceIndex() { storeIndex(index + 1); }

  void closeCurrent() noexcept {
    if (fd >= 0) ::close(fd);
    fd = -1;
    hasEvents = false;
  }

  void adopt(int file, const struct stat& info) noexcept {
    fd = file;
    hasEvents = info.st_size > kHeaderSize;
  }

  // True when the `size` bytes of `file` end with this key's closing text: the batch was finished
  // but the process stopped before the rename.
  bool isClosed(int file, off_t size) const {
    const std::string end = std::string(kWriteKeyKey).append(writeKey).append(kClosingEnd);
    constexpr std::size_t kLongestTime = 40;
    const std::size_t length =
        std::min(kSentAtKey.size() + kLongestTime + end.size(), static_cast<std::size_t>(size));
    std::string tail(length, '\0');
    if (::pread(file, tail.data(), length, size - static_cast<off_t>(length)) !=
        static_cast<ssize_t>(length))
      return false;
    if (!std::string_view(tail).ends_with(end)) return false;
    const std::string_view rest(tail.data(), tail.size() - end.size());
    const auto start = rest.rfind(kSentAtKey);
    if (start == std::string_view::npos) return false;
    const auto time = rest.substr(start + kSentAtKey.size());
    return !time.empty() && time.find('"') == std::string_view::npos;
  }

  // Appends `],"sentAt":"<now>","writeKey":"<key>"}`. On failure the file is cut back to what it
  // was, so a later finish can try again, and the batch is reported.
  bool appendClosing(int file, const std::string& path) {
    struct stat info;
    if (::fstat(file, &info) == 0) {
      std::string closing(kSentAtKey);
      closing.append(platform::iso8601Now())
          .append(kWriteKeyKey)
          .append(writeKey)
          .append(kClosingEnd);
      if (writeAll(file, closing)) {
        ::fdatasync(file);
        return true;
      }
      cutBack(file, info.st_size);
    }
    log::message("Event storage " + path + " has some kind of problem.", LogFilterKind::error,
                 kFinishFunction, __LINE__);
    return false;
  }

  // Moves a closed batch to its ".temp" name, never over an existing one (which a crash or a
  // stranger may have left); then the name gets a number before ".temp".
  void moveToTemp(const std::string& path) {
    int error = renameNoReplace(path.c_str(), (path + std::string(kTempExtension)).c_str());
    for (int n = 1; error == EEXIST && n < 100; ++n) {
      const std::string alternative = path + "." + std::to_string(n) + std::string(kTempExtension);
      error = renameNoReplace(path.c_str(), alternative.c_str());
    }
    if (error == 0) {
      syncDirectory(directory);
      return;
    }
    const std::string message =
        "Unable to rename to temp: " + path + ", Error: " + std::generic_category().message(error);
    platform::printLine(message);
    log::message(message, LogFilterKind::error, kFinishFunction, __LINE__);
  }

  // Opens the current batch file for appending into `fd` (creating it with the batch header when
  // `create` is set). A file found already closed is moved to ".temp" and the next index tried.
  // `info` receives the open file's status.
  bool openCurrent(bool create, struct stat& info) {
    for (int attempt = 0; attempt < 4; ++attempt) {
      int file = ::open(currentPath.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
      if (file < 0) {
        if (errno != ENOENT || !create) return false;
        createDirectory();
        file = ::open(currentPath.c_str(), O_RDWR | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (file < 0) {
          if (errno == EEXIST) continue;
          return false;
        }
        if (!writeAll(file, kBatchHeader) || ::fstat(file, &info) != 0) {
          ::close(file);
          ::unlink(currentPath.c_str());
          return false;
        }
        syncDirectory(directory);
        adopt(file, info);
        return true;
      }
      if (::fstat(file, &info) != 0) {
        ::close(file);
        return false;
      }
      if (info.st_size < kHeaderSize) {
        // Stopped between creating the file and writing its header: it holds no event.
        if (::ftruncate(file, 0) != 0 || !writeAll(file, kBatchHeader) ||
            ::fstat(file, &info) != 0) {
          ::close(file);
          return false;
        }
      } else if (info.st_size > kHeaderSize && isClosed(file, info.st_size)) {
        ::close(file);
        moveToTemp(currentPath);
        advanceIndex();
        continue;
      }
      adopt(file, info);
      return true;
    }
    return false;
  }

  // Closes the current batch, moves it to ".temp" and advances the index. A missing file, or one
  // holding no event, is left alone: no empty batch, and the index stays.
  void finish() {
    struct stat info;
    if (fd < 0 && !openCurrent(false, info)) return;
    if (!hasEvents || !appendClosing(fd, currentPath)) return;
    closeCurrent();
    moveToTemp(currentPath);
    advanceIndex();
  }

  // First use on the queue. The stored index holds unless the files are ahead of it: a crash
  // between the rename and storing the index leaves a ".temp" at the stored index, a lost suite
  // leaves files above it. Unfinished files below the index (a rename that failed earlier) are
  // finished now; ones that hold no event are deleted. Tried again while the directory cannot
  // be listed.
  void recover() {
    if (recovered) return;
    std::uint64_t next = index;
    std::vector<std::uint64_t> unfinished;
    std::error_code error;
    std::filesystem::directory_iterator it(directory, error);
    if (error == std::errc::no_such_file_or_directory) {
      recovered = true;  // a first run: nothing to recover
      return;
    }
    for (std::filesystem::directory_iterator end; !error && it != end; it.increment(error)) {
      const auto parsed = parseEventsFileName(it->path().filename().native());
      if (!parsed) continue;
      if (parsed->finished) {
        next = std::max(next, parsed->index + 1);
      } else {
        next = std::max(next, parsed->index);
        unfinished.push_back(parsed->index);
      }
    }
    if (error) return;
    recovered = true;
    for (const std::uint64_t stale : unfinished) {
      if (stale < next) finishStale(pathFor(stale));
    }
    if (next != index) storeIndex(next);
  }

  void finishStale(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    if (file < 0) return;
    struct stat info;
    if (::fstat(file, &info) != 0) {
      ::close(file);
      return;
    }
    const bool empty = info.st_size <= kHeaderSize;
    const bool closed = !empty && (isClosed(file, info.st_size) || appendClosing(file, path));
    ::close(file);
    if (empty) {
      ::unlink(path.c_str());
    } else if (closed) {
      moveToTemp(path);
    }
  }

  void append(AppendText appendText, const void* event) {
    recover();
    buffer.assign(1, ',');
    try {
      appendText(buffer, event);
    } catch (const std::exception&) {
      return;  // not encodable: nothing is written
    }

    struct stat info;
    // The open file's own status: cheaper than a path lookup, and a link count of 0 shows that
    // the batch was deleted behind our back (then a new one starts).
    if (fd >= 0 && (::fstat(fd, &info) != 0 || info.st_nlink == 0)) closeCurrent();
    if (fd < 0 && !openCurrent(true, info)) return;
    if (info.st_size >= kRollOverSize) {
      finish();
      // When finishing failed the batch stays open and takes the event after all.
      if (fd < 0 && !openCurrent(true, info)) return;
    }
    const std::size_t skip = hasEvents ? 0 : 1;  // the first event of a batch has no comma
    if (!writeAll(fd, buffer.data() + skip, buffer.size() - skip)) {
      // A torn event would spoil the whole batch: cut the file back to where it was.
      if (!cutBack(fd, info.st_size)) closeCurrent();
      return;
    }
    hasEvents = true;
    ::fdatasync(fd);
  }

  std::vector<std::filesystem::path> finishAndList() {
    recover();
    finish();
    createDirectory();
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
      const std::string name = it->path().filename().native();
      std::error_code typeError;
      if (name.starts_with('.') || it->path().extension().native() != kTempExtension ||
          !it->is_regular_file(typeError))
        continue;
      files.push_back(it->path());
    }
    if (error) return {};
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
      return a.filename().native() < b.filename().native();
    });
    return files;
  }
};

Storage::Storage(std::shared_ptr<Store> store, std::string writeKey, platform::Paths paths)
    : store_(std::move(store)),
      writeKey_(std::move(writeKey)),
      queue_(platform::SerialQueue::create(
          std::string("storage.").append(platform::queueLabelSuffix))),
      state_(std::make_unique<State>()) {
  if (paths.documents.empty() || paths.preferences.empty()) {
    const auto defaults = platform::Paths::defaults();
    if (paths.documents.empty()) paths.documents = defaults.documents;
    if (paths.preferences.empty()) paths.preferences = defaults.preferences;
  }
  const std::string name = detail::safeFileName(writeKey_);
  state_->writeKey = writeKey_;
  state_->directory = paths.documents / "pelora" / name;
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
  queue_->sync([&]() noexcept {
    try {
      state_->append(appendText, event);
    } catch (const std::exception&) {
      // Out of memory on the way: the event is lost, the host never hears of it.
    }
  });
}

void Storage::writeValue(Constants key, std::optional<JSON> value) noexcept {
  queue_->sync([&]() noexcept {
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
  return queue_->sync([&]() noexcept -> std::optional<JSON> {
    if (!state_->suite) return std::nullopt;
    try {
      return state_->suite->get(rawValue(key));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  });
}

std::vector<std::filesystem::path> Storage::finishAndList() noexcept {
  return queue_->sync([&]() noexcept -> std::vector<std::filesystem::path> {
    try {
      return state_->finishAndList();
    } catch (const std::exception&) {
      return {};
    }
  });
}

void Storage::remove(const std::filesystem::path& file) {
  if (::unlink(file.c_str()) != 0) {
    throw std::filesystem::filesystem_error("Unable to remove batch file", file,
                                            std::error_code(errno, std::generic_category()));
  }
}

}  // namespace pelora
