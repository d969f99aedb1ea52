#include "pelora/platform/user_defaults.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

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

// Writes `text` to `file` so that a crash at any point leaves either the old or the new content.
bool replaceAtomically(const std::filesystem::path& file, std::string_view text) {
  std::error_code ignored;
  std::filesystem::create_directories(file.parent_path(), ignored);

  std::string hidden(".");  // a dot file, so that listings skip it
  hidden.append(file.filename().native()).append(".XXXXXX");
  std::string temp = file.parent_path() / hidden;
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = writeAll(fd, text) && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !written || ::rename(temp.c_str(), file.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  // The rename is durable only once the directory itself is on disk.
  const int directory = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory >= 0) {
    ::fsync(directory);
    ::close(directory);
  }
  return true;
}

JSON::Map load(const std::filesystem::path& file) {
  try {
    std::ifstream in(file, std::ios::binary);
    if (!in) return {};
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) return {};
    JSON json = JSON::parse(text);
    if (const auto* map = json.mapPointer()) return *map;
  } catch (const std::exception&) {
    // Corrupt content: the suite starts over rather than failing its owner.
  }
  return {};
}

bool isSingleFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace

std::optional<UserDefaults> UserDefaults::open(const std::filesystem::path& preferences,
                                               std::string_view name) {
  if (!isSingleFileName(name)) return std::nullopt;
  UserDefaults suite(preferences / "pelora" / (std::string(name) + ".json"));
  suite.values_ = load(suite.file_);
  return suite;
}

std::optional<JSON> UserDefaults::get(std::string_view key) const {
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void UserDefaults::set(std::string_view key, JSON value) {
  auto it = values_.find(key);
  if (it == values_.end()) {
    values_.emplace(std::string(key), std::move(value));
  } else {
    it->second = std::move(value);
  }
  dirty_ = true;
}

void UserDefaults::remove(std::string_view key) {
  auto it = values_.find(key);
  if (it == values_.end()) return;
  values_.erase(it);
  dirty_ = true;
}

bool UserDefaults::synchronize() noexcept {
  if (!dirty_) return true;
  try {
    if (!replaceAtomically(file_, JSON(values_).toString())) return false;
  } catch (const std::exception&) {
    return false;
  }
  dirty_ = false;
  return true;
}

}  // namespace pelora::platform
