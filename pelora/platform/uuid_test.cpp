#include "pelora/platform/uuid.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <uuid/uuid.h>

#include <fstream>
#include <random>
#include <thread>
#include <unordered_set>

#include "pelora/platform/uuid_internal.hpp"
#include "tests/support/temp_directory.hpp"

namespace pelora::platform {
namespace {

using ::testing::MatchesRegex;

constexpr const char* kUpperUuid = "[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}";

// Upper-case hyphenated, version 4, RFC 4122 variant (checked by hand: a regex per id is slow).
bool isRandomUuid(const std::string& id) {
  if (id.size() != 36) return false;
  for (std::size_t i = 0; i < id.size(); ++i) {
    const char c = id[i];
    const bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
    if (hyphen ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
  }
  return id[14] == '4' && std::string_view("89AB").find(id[19]) != std::string_view::npos;
}

TEST(Uuid, ConcurrentCallersGetUniqueVersion4Ids) {
  EXPECT_THAT(uuidString(), MatchesRegex(kUpperUuid));
  constexpr int kThreads = 4;
  constexpr int kEach = 5'000;  // more than one refill of a thread's pool
  std::vector<std::vector<std::string>> drawn(kThreads);
  std::vector<std::thread> threads;
  for (auto& ids : drawn) {
    threads.emplace_back([&ids] {
      for (int i = 0; i < kEach; ++i) ids.push_back(uuidString());
    });
  }
  for (auto& thread : threads) thread.join();
  std::unordered_set<std::string> seen;
  for (const auto& ids : drawn) {
    for (const auto& id : ids) EXPECT_TRUE(isRandomUuid(id)) << id;
    seen.insert(ids.begin(), ids.end());
  }
  EXPECT_EQ(seen.size(), std::size_t{kThreads * kEach});
}

TEST(Uuid, AForkedChildDoesNotRepeatItsParentsIds) {
  (void)uuidString();  // the parent's pool now holds ids the child inherits
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string id = uuidString();
    const bool written = ::write(fds[1], id.data(), id.size()) == static_cast<ssize_t>(id.size());
    ::_exit(written ? 0 : 1);
  }
  ::close(fds[1]);
  char buffer[36];
  ASSERT_EQ(::read(fds[0], buffer, sizeof buffer), static_cast<ssize_t>(sizeof buffer));
  ::close(fds[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const std::string childId(buffer, sizeof buffer);
  EXPECT_TRUE(isRandomUuid(childId)) << childId;
  EXPECT_NE(childId, uuidString());
}

TEST(Uuid, TextIsWhatLibuuidWritesForEveryByte) {
  std::mt19937 random(7);
  for (int round = 0; round < 600; ++round) {
    uuid_t uuid;
    // Every byte value at every position, then random ones.
    for (int i = 0; i < 16; ++i) {
      uuid[i] = static_cast<unsigned char>(round < 256 ? (round + i * 17) % 256 : random());
    }
    char expected[UUID_STR_LEN];
    uuid_unparse_upper(uuid, expected);
    ASSERT_EQ(detail::unparseUpper(uuid), expected) << round;
  }
}

TEST(Uuid, DeviceIdentifierIsTheStableNameBasedUuidOfMachineAndApplication) {
  const std::string first = deviceIdentifier("com.example.one");
  EXPECT_THAT(first, MatchesRegex(kUpperUuid));
  EXPECT_EQ(first[14], '5');
  EXPECT_EQ(deviceIdentifier("com.example.one"), first);
  EXPECT_NE(deviceIdentifier("com.example.two"), first);
  // The same value Python's uuid.uuid5 gives for our namespace and this name: ids do not change
  // when libuuid is upgraded.
  EXPECT_EQ(detail::deviceIdentifier("0123456789abcdef0123456789abcdef", "com.example.app"),
            "4D5CDD9C-633C-5D91-97EB-D5797D493345");
}

TEST(Uuid, MachineIdComesFromTheFirstUsableFile) {
  test::TempDirectory dir("pelora-uuid");
  const auto write = [&](const char* name, const char* text) {
    std::ofstream(dir.path() / name) << text;
    return dir.path() / name;
  };
  const auto missing = dir.path() / "missing";
  const auto blank = write("blank", " \n");
  const auto good = write("good", "  abc123\t\nsecond line\n");
  EXPECT_EQ(detail::readMachineId({missing, blank, good, write("other", "zzz\n")}), "abc123");
  EXPECT_EQ(detail::readMachineId({missing, blank}), std::nullopt);
}

}  // namespace
}  // namespace pelora::platform
