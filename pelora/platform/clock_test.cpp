#include "pelora/platform/clock.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pelora::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

TEST(ClockTest, FormatsUTCWithMilliseconds) {
  EXPECT_EQ(iso8601(system_clock::time_point(milliseconds(1'714'550'950'123))),
            "2024-05-01T08:09:10.123Z");
  EXPECT_EQ(iso8601(system_clock::time_point()), "1970-01-01T00:00:00.000Z");
  // Sub-millisecond parts are dropped, and times before 1970 round down, not toward zero.
  EXPECT_EQ(iso8601(system_clock::time_point(std::chrono::microseconds(1'999))),
            "1970-01-01T00:00:00.001Z");
  EXPECT_EQ(iso8601(system_clock::time_point(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
  EXPECT_THAT(
      iso8601Now(),
      testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z"));
}

}  // namespace
}  // namespace pelora::platform
