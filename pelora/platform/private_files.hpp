// The one place where the library creates and opens its files and directories, private to the user
// running it: new directories 0700 and new files 0600 whatever the umask, nothing opened through a
// link. Storage and the user-defaults suite call it, from any thread: it keeps no state.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>

namespace pelora::platform {

// An open descriptor, closed however the scope is left.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }
  void reset() noexcept;

 private:
  int fd_;
};

// Makes `base / ours` a directory for the library's files. Missing components of `base` are
// created 0700; existing ones are the user's and stay as they are. Each component of `ours` is the
// library's own: created 0700, or tightened to 0700 when an older version left it wider. False,
// with errno set, when one cannot be made, is a link or no directory (ELOOP or ENOTDIR), or is not
// this user's (EPERM): nothing may be kept there then.
bool makePrivateDirectory(const std::filesystem::path& base,
                          const std::filesystem::path& ours) noexcept;

// Creates `path` as a new file, 0600, open with `flags` (O_WRONLY or O_RDWR, O_APPEND). Fails with
// EEXIST when the name is taken, by a link too (its target is never created or opened).
UniqueFd createNewFile(const std::string& path, int flags) noexcept;

// Creates a new file from `pathTemplate` (ending in "XXXXXX", which is replaced in place as
// mkostemp does), 0600, open for writing.
UniqueFd createTemporaryFile(std::string& pathTemplate) noexcept;

// Opens the existing file `path` with `flags` (O_RDONLY, O_RDWR, O_APPEND), or creates it 0600 when
// `flags` holds O_CREAT. Fails with ELOOP when `path` is a link, and with EPERM when it is not a
// regular file of this user's (a FIFO, a device, a stranger's file): only such a file is ever
// written to, cut back or repaired. One wider than 0600 (an older version's) is tightened.
UniqueFd openOwnFile(const std::string& path, int flags) noexcept;

// Makes renames and new files in `directory` durable.
void syncDirectory(const std::filesystem::path& directory) noexcept;

}  // namespace pelora::platform
