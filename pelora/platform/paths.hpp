// Where the library keeps its files: the documents directory (event batches) and the preferences
// directory (user-defaults suites). Defaults follow the XDG base directories; a host or a test may
// set both.
#pragma once

#include "pelora/core/export.h"

#include <filesystem>

namespace pelora::platform {

struct PELORA_API Paths {
  std::filesystem::path documents;    // default: $XDG_DATA_HOME, else $HOME/.local/share
  std::filesystem::path preferences;  // default: $XDG_CONFIG_HOME, else $HOME/.config

  // The defaults for the current user (falls back to the working directory without $HOME).
  static Paths defaults();
};

}  // namespace pelora::platform
