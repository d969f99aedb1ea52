#include "pelora/log/pelora_log.hpp"

#include <charconv>
#include <set>
#include <utility>

#include "pelora/platform/clock.hpp"
#include "pelora/platform/console.hpp"

namespace pelora {
namespace {

// error < warning < debug in the enum, so a smaller value is more severe.
bool passes(LogFilterKind kind, LogFilterKind filter) {
  return static_cast<int>(kind) <= static_cast<int>(filter);
}

}  // namespace

void ConsoleTarget::parseLog(const LogMessage& message) {
  const bool log = message.type == LoggingType::log;
  std::string_view label = message.type == LoggingType::metric ? "metric" : "history";
  if (log) label = name(message.kind);
  std::string line = message.timestamp;
  line.append(" ").append(formatLogLine(label, message.function, message.line, message.message));
  // Metrics and history are information whatever kind they carry.
  platform::printLine(line, log ? logLevel(message.kind) : LogLevel::info);
}

PeloraLog::PeloraLog(LogFilterKind filterKind, PluginType type, TargetTable targets)
    : filterKind_(filterKind), type_(type), targets_(std::move(targets)) {
  for (auto& [loggingType, list] : targets_) std::erase(list, nullptr);
}

void PeloraLog::log(std::string_view message, LogFilterKind kind, std::string_view function,
                    int line) {
  if (!platform::log::debugEnabled() || !passes(kind, filterKind_)) return;
  const auto targets = targetsOf(LoggingType::log);
  if (targets.empty()) return;
  const LogMessage entry{kind, std::string(message),   std::string(function),
                         line, platform::iso8601Now(), LoggingType::log};
  for (const auto& target : targets) target->parseLog(entry);
}

void PeloraLog::metric(MetricType type, std::string_view name, double value) {
  const auto targets = targetsOf(LoggingType::metric);
  if (targets.empty()) return;
  char number[32];
  const auto end = std::to_chars(number, number + sizeof number, value).ptr;
  std::string text(type == MetricType::counter ? "counter " : "gauge ");
  text.append(name).append(" ").append(number, end);
  const LogMessage entry{LogFilterKind::debug,   std::move(text),    {}, 0,
                         platform::iso8601Now(), LoggingType::metric};
  for (const auto& target : targets) target->parseLog(entry);
}

void PeloraLog::add(std::shared_ptr<LogTarget> target, LoggingType type) {
  if (!target) return;
  std::lock_guard lock(mutex_);
  targets_[type].push_back(std::move(target));
}

void PeloraLog::flush() {
  std::vector<std::shared_ptr<LogTarget>> all;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [type, targets] : targets_)
      all.insert(all.end(), targets.begin(), targets.end());
  }
  // A target registered for several types is flushed once.
  std::set<LogTarget*> flushed;
  for (const auto& target : all) {
    if (flushed.insert(target.get()).second) target->flush();
  }
}

// Targets are called outside the lock, so one may log or add from inside parseLog().
std::vector<std::shared_ptr<LogTarget>> PeloraLog::targetsOf(LoggingType type) const {
  std::lock_guard lock(mutex_);
  const auto found = targets_.find(type);
  return found == targets_.end() ? std::vector<std::shared_ptr<LogTarget>>{} : found->second;
}

}  // namespace pelora
