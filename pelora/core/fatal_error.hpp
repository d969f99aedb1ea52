// The exit for programming errors: the message goes to standard error, then the process aborts.
// Only a host's (or our own) misuse of an API comes here; nothing the network, the disk or the
// service does may.
#pragma once

#include <string_view>

namespace pelora {

// Prints "Fatal error: <message>" to standard error and aborts.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace pelora
