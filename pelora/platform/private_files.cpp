#include "pelora/platform/private_files.hpp"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>

namespace pelora::platform {
namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

// The umask may take bits out of a new file's mode, owner bits included; an older version may have
// left a file or directory wider. Either way the mode is set outright.
bool setMode(int fd, const struct stat& info, mode_t mode) noexcept {
  return (info.st_mode & 07777) == mode || ::fchmod(fd, mode) == 0;
}

bool ownedByUs(const struct stat& info) noexcept {
  return info.st_uid == ::geteuid();
}

// Fails with `error`, closing what was opened.
UniqueFd failWith(UniqueFd& file, int error) noexcept {
  file.reset();
  errno = error;
  return UniqueFd();
}

// The missing components of `base` (a path the host or the environment chose: links in it are
// followed), each created 0700.
bool makeBase(const std::filesystem::path& base) noexcept {
  try {
    std::filesystem::path partial;
    for (const auto& component : base) {
      partial /= component;
      if (::mkdir(partial.c_str(), kDirectoryMode) == 0) {
        if (::chmod(partial.c_str(), kDirectoryMode) != 0) return false;
        continue;
      }
      const int error = errno;
      struct stat info;
      if (::stat(partial.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) continue;
      errno = error;
      return false;
    }
    return true;
  } catch (const std::exception&) {
    errno = ENOMEM;
    return false;
  }
}

}  // namespace

void UniqueFd::reset() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool makePrivateDirectory(const std::filesystem::path& base,
                          const std::filesystem::path& ours) noexcept {
  UniqueFd directory(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    if (errno != ENOENT || !makeBase(base)) return false;
    directory = UniqueFd(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return false;
  }
  // Each of ours is looked up in the one opened before it, so that no link anywhere on the way
  // can lead the library out of its own directories.
  for (const auto& component : ours) {
    if (component.empty()) continue;
    if (::mkdirat(directory.get(), component.c_str(), kDirectoryMode) != 0 && errno != EEXIST)
      return false;
    UniqueFd next(::openat(directory.get(), component.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info;
    if (!next || ::fstat(next.get(), &info) != 0) return false;
    if (!ownedByUs(info)) {
      errno = EPERM;
      return false;
    }
    if (!setMode(next.get(), info, kDirectoryMode)) return false;
    directory = std::move(next);
  }
  return true;
}

UniqueFd createNewFile(const std::string& path, int flags) noexcept {
  // O_EXCL: whatever has the name, a link included, fails the call and is left untouched.
  UniqueFd file(::open(path.c_str(), flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (file && ::fchmod(file.get(), kFileMode) != 0) return failWith(file, errno);
  return file;
}

UniqueFd createTemporaryFile(std::string& pathTemplate) noexcept {
  UniqueFd file(::mkostemp(pathTemplate.data(), O_CLOEXEC));  // O_EXCL, as createNewFile
  if (file && ::fchmod(file.get(), kFileMode) != 0) {
    const int error = errno;
    ::unlink(pathTemplate.c_str());
    return failWith(file, error);
  }
  return file;
}

UniqueFd openOwnFile(const std::string& path, int flags) noexcept {
  // O_NONBLOCK keeps the open from waiting for a writer when the name is a FIFO (which is then
  // refused); regular files ignore it. O_NOCTTY: a terminal never becomes ours by being opened.
  UniqueFd file(
      ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kFileMode));
  struct stat info;
  if (!file) return file;
  if (::fstat(file.get(), &info) != 0) return failWith(file, errno);
  if (!S_ISREG(info.st_mode) || !ownedByUs(info)) return failWith(file, EPERM);
  (void)setMode(file.get(), info, kFileMode);  // a read-only file system keeps it as it is
  return file;
}

void syncDirectory(const std::filesystem::path& directory) noexcept {
  const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd) ::fsync(fd.get());
}

}  // namespace pelora::platform
