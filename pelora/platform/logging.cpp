#include "pelora/platform/logging.hpp"

#include <atomic>
#include <string>

#include "pelora/core/json.hpp"

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

std::string formatLogLine(std::string_view label, std::string_view function, int line,
                          std::string_view message) {
  std::string text = "[pelora ";
  text.append(label).append("] ");
  if (!function.empty()) text.append(function).append(":").append(std::to_string(line)).append(" ");
  text.append(message);
  return text;
}

}  // namespace pelora

namespace pelora::platform::log {
namespace {
std::atomic<bool> debugFlag{false};

void reportKeyPathFailure(std::string_view text, std::string_view function, int line) {
  message(text, LogFilterKind::error, function, line);
}

}  // namespace

void setDebugEnabled(bool enabled) noexcept {
  // JSON lives below the log and cannot call it; its failures matter only while lines print.
  if (enabled) setKeyPathFailureReporter(&reportKeyPathFailure);
  debugFlag.store(enabled, std::memory_order_relaxed);
}

bool debugEnabled() noexcept {
  return debugFlag.load(std::memory_order_relaxed);
}

void message(std::string_view message, std::optional<LogFilterKind> kind, std::string_view function,
             int line) {
  if (!debugEnabled()) return;
  printLine(formatLogLine(pelora::name(kind), function, line, message), logLevel(kind));
}

void debugPrint(std::string_view line) {
  if (debugEnabled()) printLine(line, LogLevel::debug);
}

}  // namespace pelora::platform::log
