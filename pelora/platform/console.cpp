#include "pelora/platform/console.hpp"

#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

namespace pelora::platform {
namespace {
struct Console {
  std::mutex outputMutex;   // one line at a time on stdout
  std::mutex handlerMutex;  // guards `handler` only; never held while a handler runs
  std::shared_ptr<const LogHandler> handler;
};

// Leaked on purpose: a print from a worker thread during exit() must still find a live console.
Console& console() {
  static auto* instance = new Console;
  return *instance;
}
}  // namespace

void setLogHandler(LogHandler handler) {
  auto next = handler ? std::make_shared<const LogHandler>(std::move(handler)) : nullptr;
  auto& shared = console();
  std::lock_guard lock(shared.handlerMutex);
  shared.handler.swap(next);
}

void printLine(std::string_view line, LogLevel level) {
  auto& shared = console();
  std::shared_ptr<const LogHandler> handler;
  {
    std::lock_guard lock(shared.handlerMutex);
    handler = shared.handler;
  }
  if (handler) {
    // A handler that throws must not take down the library thread that logged.
    try {
      (*handler)(level, line);
    } catch (...) {
    }
    return;
  }
  std::lock_guard lock(shared.outputMutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace pelora::platform
