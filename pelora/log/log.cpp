#include "pelora/log/log.hpp"

#include <atomic>
#include <string>

#include "pelora/platform/console.hpp"

namespace pelora {

std::string_view name(std::optional<LogFilterKind> kind) noexcept {
  if (!kind) return "log";
  switch (*kind) {
    case LogFilterKind::error:
      return "error";
    case LogFilterKind::warning:
      return "warning";
    case LogFilterKind::debug:
      return "debug";
  }
  return "log";
}

}  // namespace pelora

namespace pelora::log {
namespace {
std::atomic<bool> debugFlag{false};

}  // namespace

void setDebugEnabled(bool enabled) noexcept {
  debugFlag.store(enabled, std::memory_order_relaxed);
}

bool debugEnabled() noexcept {
  return debugFlag.load(std::memory_order_relaxed);
}

void message(std::string_view message, std::optional<LogFilterKind> kind, std::string_view function,
             int line) {
  if (!debugEnabled()) return;
  std::string text = "[pelora ";
  text.append(pelora::name(kind)).append("] ").append(function).append(":");
  text.append(std::to_string(line)).append(" ").append(message);
  platform::printLine(text);
}

}  // namespace pelora::log
