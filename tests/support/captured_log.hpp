// Collects every line the library prints while alive, from any thread; the console is back
// afterwards.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelora/platform/console.hpp"

namespace pelora::test {

class CapturedLog {
 public:
  using Line = std::pair<LogLevel, std::string>;

  CapturedLog() {
    platform::setLogHandler([this](LogLevel level, std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(level, std::string(line));
    });
  }
  ~CapturedLog() { platform::setLogHandler(nullptr); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  // Whether a line of `level` contains `text`.
  bool has(LogLevel level, std::string_view text) const {
    std::lock_guard lock(mutex_);
    for (const auto& [lineLevel, line] : lines_) {
      if (lineLevel == level && line.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return lines_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace pelora::test
