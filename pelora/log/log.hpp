// The library's log line entry point. Parts of the library that have no client at hand (value
// coding, storage) report here; lines are printed only while debug logs are switched on.
#pragma once

#include <optional>
#include <string_view>

namespace pelora {

// How serious a log line is.
enum class LogFilterKind { error, warning, debug };

// "error", "warning", "debug"; "log" for a line without a kind.
std::string_view name(std::optional<LogFilterKind> kind) noexcept;

// Receives structured log lines: the client is one (its log function), tests record them.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void log(std::string_view message, std::optional<LogFilterKind> kind,
                   std::string_view function, int line) = 0;
};

namespace log {

// The module-wide switch behind PeloraAnalytics::debugLogsEnabled; off by default.
void setDebugEnabled(bool enabled) noexcept;
bool debugEnabled() noexcept;

// Reports `message` on behalf of `function` (the caller's name) at `line`.
void message(std::string_view message, std::optional<LogFilterKind> kind, std::string_view function,
             int line);

}  // namespace log
}  // namespace pelora
