#include "pelora/platform/console.hpp"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace pelora::platform {
namespace {
// Leaked on purpose: a print from a worker thread during exit() must still find a live mutex.
std::mutex& consoleMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
}  // namespace

void printLine(std::string_view line) {
  std::lock_guard lock(consoleMutex());
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void fatalError(std::string_view message) {
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace pelora::platform
