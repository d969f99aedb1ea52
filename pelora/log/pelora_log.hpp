// PeloraLog: the logging plugin. The client finds it in its timeline and forwards its log, add
// and logFlush calls here. Callable from any thread; targets may be called from several threads
// at once and must guard themselves.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/platform/logging.hpp"
#include "pelora/plugin/plugin.hpp"

namespace pelora {

// Which group of targets a message is for.
enum class LoggingType { log, metric, history };
enum class MetricType { counter, gauge };

// One message as handed to a target.
struct PELORA_API LogMessage {
  LogFilterKind kind = LogFilterKind::debug;
  std::string message;
  std::string function;
  int line = 0;
  std::string timestamp;  // ISO 8601, UTC, milliseconds
  LoggingType type = LoggingType::log;
};

// Where messages end up.
class PELORA_API LogTarget {
 public:
  virtual ~LogTarget() = default;
  virtual void parseLog(const LogMessage& message) = 0;
  // Writes out anything held back; does nothing by default.
  virtual void flush() {}
};

// Prints one line per message to standard output.
class PELORA_API ConsoleTarget : public LogTarget {
 public:
  void parseLog(const LogMessage& message) override;
};

class PELORA_API PeloraLog : public Plugin, public UtilityPlugin {
 public:
  using TargetTable = std::map<LoggingType, std::vector<std::shared_ptr<LogTarget>>>;

  PeloraLog(LogFilterKind filterKind, PluginType type, TargetTable targets = {});

  PluginType type() const override { return type_; }
  bool readsEventValues() const override { return false; }
  LogFilterKind filterKind() const noexcept { return filterKind_; }

  // To the `log` targets, while debug logs are on and `kind` is at least as severe as the filter.
  void log(std::string_view message, LogFilterKind kind, std::string_view function, int line);
  // To the `metric` targets, as "<counter|gauge> <name> <value>".
  void metric(MetricType type, std::string_view name, double value);
  // Adds `target` to the targets of `type`.
  void add(std::shared_ptr<LogTarget> target, LoggingType type);
  // Flushes every target.
  void flush();

 private:
  std::vector<std::shared_ptr<LogTarget>> targetsOf(LoggingType type) const;

  const LogFilterKind filterKind_;
  const PluginType type_;
  mutable std::mutex mutex_;
  TargetTable targets_;
};

}  // namespace pelora
