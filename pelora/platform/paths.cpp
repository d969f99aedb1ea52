#include "pelora/platform/paths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>
#include <vector>

namespace pelora::platform {
namespace {

// An environment value that names an absolute directory; relative values are ignored, as the
// XDG base-directory rules ask.
std::filesystem::path absoluteFromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return {};
  return std::filesystem::path(value);
}

// $HOME, else the home directory in the password database, else the working directory (a daemon
// without a home still gets somewhere to write).
std::filesystem::path homeDirectory() {
  if (auto home = absoluteFromEnvironment("HOME"); !home.empty()) return home;

  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
      found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/') {
    return std::filesystem::path(found->pw_dir);
  }

  std::error_code error;
  auto working = std::filesystem::current_path(error);
  return error ? std::filesystem::path("/tmp") : working;
}

}  // namespace

Paths Paths::defaults() {
  const auto home = homeDirectory();
  Paths paths;
  // The phone's documents directory is the application's data: the XDG data directory here.
  paths.documents = absoluteFromEnvironment("XDG_DATA_HOME");
  if (paths.documents.empty()) paths.documents = home / ".local" / "share";
  paths.preferences = absoluteFromEnvironment("XDG_CONFIG_HOME");
  if (paths.preferences.empty()) paths.preferences = home / ".config";
  // A memory file system that lasts as long as the session (or the machine), like the journals.
  paths.journals = absoluteFromEnvironment("XDG_RUNTIME_DIR");
  std::error_code error;
  if (paths.journals.empty() || !std::filesystem::is_directory(paths.journals, error))
    paths.journals = "/dev/shm";
  return paths;
}

}  // namespace pelora::platform
