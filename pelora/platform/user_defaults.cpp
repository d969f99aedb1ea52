#include "pelora/platform/user_defaults.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>

#include "pelora/platform/private_files.hpp"

namespace pelora::platform {
namespace {

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// The hidden name a new version of `file` is written under before it replaces it: "." + the file
// name + "." + six characters that mkostemp chooses.
std::string temporaryPrefix(const std::filesystem::path& file) {
  return "." + file.filename().native() + ".";
}

// Temporary files that writers killed before their rename left beside `file`. Only called under
// the suite's lock, which every writer holds from creating its temporary file to renaming it, so
// none of them is still being written.
void removeLeftovers(const std::filesystem::path& file) {
  const std::string prefix = temporaryPrefix(file);
  std::error_code error;
  std::filesystem::directory_iterator it(file.parent_path(), error);
  for (std::filesystem::directory_iterator end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().native();
    const bool temporary =
        name.size() == prefix.size() + 6 && name.starts_with(prefix) &&
        std::all_of(name.end() - 6, name.end(), [](unsigned char c) { return std::isalnum(c); });
    if (temporary) {
      std::error_code ignored;
      std::filesystem::remove(it->path(), ignored);
    }
  }
}

// Writes `text` to `file` so that a crash at any point leaves either the old or the new content.
// The rename replaces whatever had the name (a link included) without touching what it named.
bool replaceAtomically(const std::filesystem::path& file, std::string_view text) {
  std::string hidden = temporaryPrefix(file);  // a dot file, so that listings skip it
  hidden.append("XXXXXX");
  std::string temp = file.parent_path() / hidden;
  UniqueFd fd = createTemporaryFile(temp);
  if (!fd) return false;
  const bool written = writeAll(fd.get(), text) && ::fsync(fd.get()) == 0;
  if (::close(fd.release()) != 0 || !written || ::rename(temp.c_str(), file.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  // The rename is durable only once the directory itself is on disk.
  syncDirectory(file.parent_path());
  return true;
}

// What the suite file holds. `map` is empty when the file is missing, not JSON or not an object;
// `readable` is false when reading failed (an I/O error: better not written over).
struct Contents {
  bool readable = true;
  std::optional<JSON::Map> map;
  std::optional<detail::FileStamp> stamp;  // of the file read
  UniqueFd file;                           // the file read, still open
};

detail::FileStamp stampOf(const struct stat& info) {
  return {static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino),
          static_cast<std::int64_t>(info.st_size),
          static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec,
          static_cast<std::int64_t>(info.st_ctim.tv_sec) * 1'000'000'000 + info.st_ctim.tv_nsec};
}

Contents read(const std::filesystem::path& file) {
  UniqueFd in = openOwnFile(file, O_RDONLY);
  if (!in) {
    // Missing, or a link or something else that is not our file: it holds nothing of ours, and
    // the next write puts a file of ours in its place.
    return {errno == ENOENT || errno == ELOOP || errno == EPERM, std::nullopt, std::nullopt,
            UniqueFd()};
  }
  // Of the file opened: what is read below is this stamp's content.
  std::optional<detail::FileStamp> stamp;
  if (struct stat info{}; ::fstat(in.get(), &info) == 0) stamp = stampOf(info);
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(in.get(), buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return {false, std::nullopt, std::nullopt, UniqueFd()};
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  try {
    JSON json = JSON::parse(text);
    if (const auto* map = json.mapPointer()) return {true, *map, stamp, std::move(in)};
  } catch (const DecodingError&) {
    // Corrupt content: the suite starts over rather than failing its owner.
  }
  return {true, std::nullopt, stamp, std::move(in)};
}

// An exclusive flock on `path` (created when missing) for the life of the object.
class FileLock {
 public:
  explicit FileLock(const std::string& path) : fd_(openOwnFile(path, O_RDWR | O_CREAT)) {
    while (fd_ && ::flock(fd_.get(), LOCK_EX) != 0) {
      if (errno != EINTR) fd_.reset();
    }
  }
  explicit operator bool() const noexcept { return static_cast<bool>(fd_); }

 private:
  UniqueFd fd_;
};

bool isSingleFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace

std::optional<UserDefaults> UserDefaults::open(const std::filesystem::path& preferences,
                                               std::string_view name) {
  if (!isSingleFileName(name)) return std::nullopt;
  UserDefaults suite(preferences, preferences / "pelora" / (std::string(name) + ".json"));
  try {
    Contents contents = read(suite.file_);
    suite.values_ = contents.map.value_or(JSON::Map{});
    suite.readStamp_ = contents.stamp;
    suite.readFile_ = std::move(contents.file);
  } catch (const std::exception&) {
    suite.values_ = {};
  }
  return suite;
}

std::optional<JSON> UserDefaults::get(std::string_view key) const {
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void UserDefaults::set(std::string_view key, JSON value) {
  pending_.insert_or_assign(std::string(key), value);
  values_.insert_or_assign(std::string(key), std::move(value));
}

void UserDefaults::remove(std::string_view key) {
  auto it = values_.find(key);
  if (it != values_.end()) values_.erase(it);
  pending_.insert_or_assign(std::string(key), std::nullopt);
}

bool UserDefaults::reload() noexcept {
  // Unchanged since values_ was read from it (values_ already holds the changes made since).
  if (struct stat info{};
      readStamp_ && ::stat(file_.c_str(), &info) == 0 && stampOf(info) == *readStamp_) {
    return true;
  }
  try {
    Contents current = read(file_);
    if (!current.readable) return false;
    JSON::Map merged = current.map ? std::move(*current.map) : JSON::Map{};
    for (const auto& [key, value] : pending_) {
      if (value) {
        merged.insert_or_assign(key, *value);
      } else if (auto it = merged.find(key); it != merged.end()) {
        merged.erase(it);
      }
    }
    values_ = std::move(merged);
    readStamp_ = current.stamp;
    readFile_ = std::move(current.file);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

bool UserDefaults::synchronize() noexcept {
  if (pending_.empty()) return true;
  try {
    if (!makePrivateDirectory(preferences_, "pelora")) return false;
    // A hidden lock file beside the suite: the suite file itself is replaced by every write.
    const std::string lockPath = file_.parent_path() / ("." + file_.filename().native() + ".lock");
    const FileLock lock(lockPath);
    if (!lock) return false;
    // Another writer's values are read first, so that this one's changes go on top of them. A
    // missing or corrupt file holds none: this suite's own values go back in.
    if (!sweptLeftovers_) {
      removeLeftovers(file_);
      sweptLeftovers_ = true;
    }
    Contents current = read(file_);
    if (!current.readable) return false;
    JSON::Map merged = current.map ? std::move(*current.map) : values_;
    for (const auto& [key, value] : pending_) {
      if (value) {
        merged.insert_or_assign(key, *value);
      } else if (auto it = merged.find(key); it != merged.end()) {
        merged.erase(it);
      }
    }
    if (!replaceAtomically(file_, JSON(merged).toString())) return false;
    values_ = std::move(merged);
    pending_.clear();
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

}  // namespace pelora::platform
