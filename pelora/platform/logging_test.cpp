#include "pelora/platform/logging.hpp"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pelora/platform/console.hpp"
#include "tests/support/captured_log.hpp"

namespace pelora {
namespace {

// The console's lines for the length of a test, with debug logs off again after.
class CapturedConsole : public test::CapturedLog {
 public:
  ~CapturedConsole() { platform::log::setDebugEnabled(false); }
};

TEST(LogLines, KindsPrintAtTheLevelOfTheirNameInOneShape) {
  EXPECT_EQ(logLevel(LogFilterKind::error), LogLevel::error);
  EXPECT_EQ(logLevel(LogFilterKind::warning), LogLevel::warning);
  EXPECT_EQ(logLevel(LogFilterKind::debug), LogLevel::debug);
  EXPECT_EQ(logLevel(std::nullopt), LogLevel::info);
  EXPECT_EQ(name(std::nullopt), "log");
  EXPECT_EQ(formatLogLine("warning", "upload", 7, "slow"), "[pelora warning] upload:7 slow");
  EXPECT_EQ(formatLogLine("metric", "", 0, "counter sent 2"), "[pelora metric] counter sent 2");

  CapturedConsole console;
  platform::log::message("hidden", LogFilterKind::error, "f", 1);
  platform::log::debugPrint("hidden too");
  EXPECT_TRUE(console.lines().empty()) << "printed while debug logs are off";
  platform::log::setDebugEnabled(true);
  platform::log::message("disk full", LogFilterKind::error, "write", 12);
  platform::log::message("no kind", std::nullopt, "g", 3);
  platform::log::debugPrint("as it stands");
  const auto lines = console.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::pair(LogLevel::error, std::string("[pelora error] write:12 disk full")));
  EXPECT_EQ(lines[1], std::pair(LogLevel::info, std::string("[pelora log] g:3 no kind")));
  EXPECT_EQ(lines[2], std::pair(LogLevel::debug, std::string("as it stands")));
}

// A handler that throws loses its line, not the thread; lines from many threads arrive whole.
TEST(Console, HandlersTakeWholeLinesFromAnyThreadAndMayThrow) {
  {
    CapturedConsole console;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < 100; ++i)
          platform::printLine("thread " + std::to_string(t), LogLevel::info);
      });
    }
    for (auto& thread : threads) thread.join();
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 400u);
    for (const auto& [level, line] : lines) {
      EXPECT_EQ(level, LogLevel::info);
      EXPECT_EQ(line.rfind("thread ", 0), 0u);
    }
  }
  platform::setLogHandler([](LogLevel, std::string_view) { throw std::runtime_error("host bug"); });
  EXPECT_NO_THROW(platform::printLine("lost", LogLevel::warning));
  platform::setLogHandler({});
  ::testing::internal::CaptureStdout();
  platform::printLine("back on standard output", LogLevel::info);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "back on standard output\n");
}

}  // namespace
}  // namespace pelora
