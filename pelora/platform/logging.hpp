// The library's log lines: their kinds, their one text shape, and the entry point for parts of the
// library that have no client at hand (value coding, storage, in-app messages). Lines are printed
// (to the console or the host's log handler) only while debug logs are switched on.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pelora/platform/console.hpp"

namespace pelora {

// How serious a log line is; the logging plugin filters by these. Ordered most severe first.
enum class LogFilterKind { error, warning, debug };

// The one mapping from a log line's kind to the console level it prints at: each kind prints at
// the level of its name, and a line without a kind at info.
constexpr LogLevel logLevel(std::optional<LogFilterKind> kind) noexcept {
  if (!kind) return LogLevel::info;
  switch (*kind) {
    case LogFilterKind::error:
      return LogLevel::error;
    case LogFilterKind::warning:
      return LogLevel::warning;
    case LogFilterKind::debug:
      return LogLevel::debug;
  }
  return LogLevel::info;
}

// "error", "warning", "debug"; "log" for a line without a kind.
PELORA_API std::string_view name(std::optional<LogFilterKind> kind) noexcept;

// The one shape of a log line: "[pelora <label>] <function>:<line> <message>", the function part
// left out when `function` is empty. `label` is a kind's name, or "metric" / "history".
PELORA_API std::string formatLogLine(std::string_view label, std::string_view function, int line,
                                     std::string_view message);

// Receives structured log lines: the client is one (its log function), tests record them.
class PELORA_API LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void log(std::string_view message, std::optional<LogFilterKind> kind,
                   std::string_view function, int line) = 0;
};

namespace platform::log {

// The module-wide switch behind PeloraAnalytics::debugLogsEnabled; off by default.
PELORA_API void setDebugEnabled(bool enabled) noexcept;
PELORA_API bool debugEnabled() noexcept;

// Prints `message` on behalf of `function` (the caller's name) at `line`, in formatLogLine's shape.
PELORA_API void message(std::string_view message, std::optional<LogFilterKind> kind,
                        std::string_view function, int line);
// Prints `line` as it stands while debug logs are on (the in-app message and push prints).
PELORA_API void debugPrint(std::string_view line);

}  // namespace platform::log
}  // namespace pelora
