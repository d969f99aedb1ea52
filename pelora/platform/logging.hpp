// The library's log line entry point. Parts of the library that have no client at hand (value
// coding, storage, in-app messages) report here; lines are printed (to the console or the host's
// log handler) only while debug logs are switched on.
#pragma once

#include <optional>
#include <string_view>

#include "pelora/platform/console.hpp"

namespace pelora {

// How serious a log line is.
enum class LogFilterKind { error, warning, debug };

// "error", "warning", "debug"; "log" for a line without a kind.
PELORA_API std::string_view name(std::optional<LogFilterKind> kind) noexcept;
// The console level of a log line of `kind` (info for a line without a kind).
PELORA_API LogLevel logLevel(std::optional<LogFilterKind> kind) noexcept;

// Receives structured log lines: the client is one (its log function), tests record them.
class PELORA_API LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void log(std::string_view message, std::optional<LogFilterKind> kind,
                   std::string_view function, int line) = 0;
};

namespace log {

// The module-wide switch behind PeloraAnalytics::debugLogsEnabled; off by default.
PELORA_API void setDebugEnabled(bool enabled) noexcept;
PELORA_API bool debugEnabled() noexcept;

// Reports `message` on behalf of `function` (the caller's name) at `line`.
PELORA_API void message(std::string_view message, std::optional<LogFilterKind> kind,
                        std::string_view function, int line);
// Prints `line` as it stands while debug logs are on (the in-app message and push prints).
PELORA_API void debugPrint(std::string_view line);

}  // namespace log
}  // namespace pelora
