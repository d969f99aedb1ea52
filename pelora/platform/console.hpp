// The console: whole lines to standard output under one lock, so lines printed from several
// threads never interleave; and the fatal-error exit for programming errors.
#pragma once

#include <string_view>

namespace pelora::platform {

// Writes `line` and a newline to standard output as one unit.
void printLine(std::string_view line);

// Prints `message` to standard error and aborts: for programming errors only.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace pelora::platform
