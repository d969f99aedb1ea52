// Where the library keeps its files: the documents directory (event batches), the preferences
// directory (user-defaults suites) and a directory in memory for the event journals, which must
// outlive the process but not a reboot. Defaults follow the XDG base directories; a host or a test
// may set each.
#pragma once

#include "pelora/core/export.h"

#include <filesystem>

namespace pelora::platform {

struct PELORA_API Paths {
  std::filesystem::path documents;    // default: $XDG_DATA_HOME, else $HOME/.local/share
  std::filesystem::path preferences;  // default: $XDG_CONFIG_HOME, else $HOME/.config
  std::filesystem::path journals{};   // default: $XDG_RUNTIME_DIR, else /dev/shm

  // The defaults for the current user (falls back to the working directory without $HOME).
  static Paths defaults();
};

}  // namespace pelora::platform
