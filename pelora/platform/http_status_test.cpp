#include "pelora/platform/http_status.hpp"

#include <gtest/gtest.h>

namespace pelora::platform {
namespace {

// The edges of each range: every request of the library reads a status through these two.
TEST(HttpStatus, RangesAndTheirComplaints) {
  for (int status : {1, 200, 204, 299}) {
    EXPECT_EQ(statusKind(status), StatusKind::accepted) << status;
    EXPECT_EQ(statusComplaint(status), "") << status;
  }
  for (int status : {300, 302, 399}) EXPECT_EQ(statusKind(status), StatusKind::unexpected);
  EXPECT_EQ(statusKind(429), StatusKind::limited);
  for (int status : {0, -1, 400, 413, 428, 430, 500, 503, 999}) {
    EXPECT_EQ(statusKind(status), StatusKind::rejected) << status;
  }
  EXPECT_EQ(statusComplaint(302), "Server responded with unexpected HTTP code 302");
  EXPECT_EQ(statusComplaint(429), "Server limited client with response code 429");
  EXPECT_EQ(statusComplaint(500), "Server rejected payload with HTTP code 500");
  EXPECT_EQ(statusComplaint(0), "Server rejected payload with HTTP code 0");
}

}  // namespace
}  // namespace pelora::platform
