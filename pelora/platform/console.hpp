// The console: where every line the library prints goes. By default whole lines to standard output
// under one lock, so lines printed from several threads never interleave; a host may take the
// lines instead with setLogHandler.
#pragma once

#include <functional>
#include <string_view>

#include "pelora/core/export.h"

namespace pelora {

// How serious a line of the library's output is.
enum class LogLevel { error, warning, info, debug };

// Receives each line the library prints or logs, without the newline. It runs on the thread that
// wrote the line (any of the library's threads), so it must be thread-safe and must not block.
using LogHandler = std::function<void(LogLevel level, std::string_view message)>;

namespace platform {

// From now on every line goes to `handler` and nothing of the library's to standard output; an
// empty handler restores the console. Lines already being written finish where they started.
PELORA_API void setLogHandler(LogHandler handler);

// Writes `line` to the host's handler, or with a newline to standard output as one unit.
PELORA_API void printLine(std::string_view line, LogLevel level);

}  // namespace platform
}  // namespace pelora
