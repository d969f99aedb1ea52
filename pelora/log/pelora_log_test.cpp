#include "pelora/log/pelora_log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/captured_log.hpp"

namespace pelora {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Keeps what it is given; thread-safe, as targets must be.
class RecordingTarget : public LogTarget {
 public:
  void parseLog(const LogMessage& message) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(message);
  }
  void flush() override {
    std::lock_guard lock(mutex_);
    ++flushes_;
  }
  std::vector<std::string> texts() {
    std::vector<std::string> texts;
    for (const auto& message : messages()) texts.push_back(message.message);
    return texts;
  }
  std::vector<LogMessage> messages() {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  int flushes() {
    std::lock_guard lock(mutex_);
    return flushes_;
  }

 private:
  std::mutex mutex_;
  std::vector<LogMessage> messages_;
  int flushes_ = 0;
};

// Switches debug logs on for one test and back off after it.
class PeloraLogTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::log::setDebugEnabled(true); }
  void TearDown() override { platform::log::setDebugEnabled(false); }

  void logAllKinds(PeloraLog& logger) {
    logger.log("e", LogFilterKind::error, "f", 1);
    logger.log("w", LogFilterKind::warning, "f", 2);
    logger.log("d", LogFilterKind::debug, "f", 3);
  }
};

TEST_F(PeloraLogTest, PassesKindsAtLeastAsSevereAsTheFilter) {
  const std::vector<std::pair<LogFilterKind, std::vector<std::string>>> cases = {
      {LogFilterKind::error, {"e"}},
      {LogFilterKind::warning, {"e", "w"}},
      {LogFilterKind::debug, {"e", "w", "d"}},
  };
  for (const auto& [filter, expected] : cases) {
    auto target = std::make_shared<RecordingTarget>();
    PeloraLog logger(filter, PluginType::utility, {{LoggingType::log, {target}}});
    logAllKinds(logger);
    EXPECT_EQ(target->texts(), expected) << "filter " << static_cast<int>(filter);
  }
}

TEST_F(PeloraLogTest, DebugSwitchGatesLogsButNotMetrics) {
  auto logs = std::make_shared<RecordingTarget>();
  auto metrics = std::make_shared<RecordingTarget>();
  PeloraLog logger(LogFilterKind::debug, PluginType::utility,
                   {{LoggingType::log, {logs}}, {LoggingType::metric, {metrics}}});
  platform::log::setDebugEnabled(false);
  logAllKinds(logger);
  logger.metric(MetricType::counter, "events", 3);
  EXPECT_THAT(logs->texts(), IsEmpty());
  EXPECT_THAT(metrics->texts(), ElementsAre("counter events 3"));
  platform::log::setDebugEnabled(true);
  logger.log("now", LogFilterKind::error, "f", 1);
  EXPECT_THAT(logs->texts(), ElementsAre("now"));
}

TEST_F(PeloraLogTest, MessagesCarryTheirOriginAndGoOnlyToTheirTypesTargets) {
  auto logs = std::make_shared<RecordingTarget>();
  auto metrics = std::make_shared<RecordingTarget>();
  auto history = std::make_shared<RecordingTarget>();
  PeloraLog logger(LogFilterKind::warning, PluginType::before, {{LoggingType::log, {logs}}});
  logger.add(metrics, LoggingType::metric);
  logger.add(history, LoggingType::history);
  logger.add(nullptr, LoggingType::log);  // ignored

  logger.log("disk full", LogFilterKind::warning, "flushFiles", 42);
  logger.metric(MetricType::gauge, "queue", 1.5);

  ASSERT_EQ(logs->messages().size(), 1u);
  const LogMessage message = logs->messages()[0];
  EXPECT_EQ(message.kind, LogFilterKind::warning);
  EXPECT_EQ(message.function, "flushFiles");
  EXPECT_EQ(message.line, 42);
  EXPECT_FALSE(message.timestamp.empty());
  EXPECT_THAT(metrics->texts(), ElementsAre("gauge queue 1.5"));
  EXPECT_THAT(history->messages(), IsEmpty());
}

TEST_F(PeloraLogTest, FlushReachesEveryTargetOnceAndMissingTargetsAreSkipped) {
  auto logs = std::make_shared<RecordingTarget>();
  auto both = std::make_shared<RecordingTarget>();
  PeloraLog logger(LogFilterKind::debug, PluginType::utility,
                   {{LoggingType::log, {logs, both, nullptr}}, {LoggingType::history, {both}}});
  logger.log("one", LogFilterKind::error, "f", 1);
  logger.flush();
  EXPECT_EQ(logs->flushes(), 1);
  EXPECT_EQ(both->flushes(), 1);
  EXPECT_EQ(both->texts(), std::vector<std::string>{"one"});
}

TEST_F(PeloraLogTest, ConcurrentLoggingAddingAndFlushing) {
  auto target = std::make_shared<RecordingTarget>();
  PeloraLog logger(LogFilterKind::debug, PluginType::utility, {{LoggingType::log, {target}}});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        logger.log("x", LogFilterKind::debug, "f", i);
        if (i % 50 == 0) logger.add(std::make_shared<RecordingTarget>(), LoggingType::log);
        if (i % 20 == 0) logger.flush();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(target->texts().size(), 800u);
}

TEST_F(PeloraLogTest, ConsoleTargetPrintsOneLinePerMessage) {
  ConsoleTarget console;
  ::testing::internal::CaptureStdout();
  console.parseLog(
      {LogFilterKind::error, "boom", "upload", 7, "2024-05-01T08:09:10.123Z", LoggingType::log});
  console.parseLog({LogFilterKind::debug, "counter sent 2", "", 0, "2024-05-01T08:09:10.124Z",
                    LoggingType::metric});
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "2024-05-01T08:09:10.123Z [pelora error] upload:7 boom\n"
            "2024-05-01T08:09:10.124Z [pelora metric] counter sent 2\n");

  // A host's handler gets each line at the level of its kind; metrics are information.
  test::CapturedLog captured;
  console.parseLog({LogFilterKind::error, "boom", "upload", 7, "t", LoggingType::log});
  console.parseLog({LogFilterKind::warning, "slow", "upload", 8, "t", LoggingType::log});
  console.parseLog({LogFilterKind::debug, "counter sent 2", "", 0, "t", LoggingType::metric});
  const auto lines = captured.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].first, LogLevel::error);
  EXPECT_EQ(lines[1].first, LogLevel::warning);
  EXPECT_EQ(lines[2].first, LogLevel::info);
}

}  // namespace
}  // namespace pelora
