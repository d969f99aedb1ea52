#include "pelora/platform/private_files.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/temp_directory.hpp"

namespace pelora::platform {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

// Sets the process umask for one scope.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : saved_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(saved_); }

 private:
  mode_t saved_;
};

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class PrivateFilesTest : public ::testing::Test {
 protected:
  test::TempDirectory dir_{"pelora-private"};
  const fs::path root_ = dir_.path();
};

// A umask that opens group bits (002) or takes owner bits (0277) changes nothing.
TEST_F(PrivateFilesTest, NewDirectoriesAndFilesArePrivateWhateverTheUmask) {
  for (const mode_t mask : {mode_t{002}, mode_t{0277}}) {
    SCOPED_TRACE(mask);
    const fs::path base = root_ / std::to_string(mask) / "data";
    const fs::path ours = base / "pelora" / "key";
    const ScopedUmask umask(mask);
    ASSERT_TRUE(makePrivateDirectory(base, "pelora/key")) << std::strerror(errno);
    for (const fs::path& made : {base.parent_path(), base, base / "pelora", ours})
      EXPECT_EQ(modeOf(made), 0700u) << made;

    EXPECT_TRUE(createNewFile(ours / "new", O_RDWR | O_APPEND));
    EXPECT_TRUE(openOwnFile(ours / ".lock", O_RDWR | O_CREAT));
    std::string temporary = ours / ".suite.XXXXXX";
    EXPECT_TRUE(createTemporaryFile(temporary));
    for (const fs::path& made : {ours / "new", ours / ".lock", fs::path(temporary)})
      EXPECT_EQ(modeOf(made), 0600u) << made;
  }
}

// Directories of ours that an older version left open are closed up; the user's own directories
// on the way are not ours to change.
TEST_F(PrivateFilesTest, WiderOnesOfOursAreTightenedAndTheUsersAreLeftAlone) {
  const fs::path base = root_ / "home";
  fs::create_directories(base / "pelora" / "key");
  for (const fs::path& dir : {base, base / "pelora", base / "pelora" / "key"})
    fs::permissions(dir, static_cast<fs::perms>(0755));
  writeFile(base / "pelora" / "key" / "0-batch", "old");
  fs::permissions(base / "pelora" / "key" / "0-batch", static_cast<fs::perms>(0644));

  ASSERT_TRUE(makePrivateDirectory(base, "pelora/key"));
  EXPECT_EQ(modeOf(base), 0755u);
  EXPECT_EQ(modeOf(base / "pelora"), 0700u);
  EXPECT_EQ(modeOf(base / "pelora" / "key"), 0700u);
  EXPECT_TRUE(openOwnFile(base / "pelora" / "key" / "0-batch", O_RDWR | O_APPEND));
  EXPECT_EQ(modeOf(base / "pelora" / "key" / "0-batch"), 0600u);
}

// A link where one of our files or directories should be is never followed: not to create, open
// or change its target.
TEST_F(PrivateFilesTest, LinksAreNeverFollowed) {
  const fs::path outside = root_ / "outside";
  fs::create_directories(outside);
  fs::permissions(outside, static_cast<fs::perms>(0755));
  fs::create_directories(root_ / "data");
  fs::create_directory_symlink(outside, root_ / "data" / "pelora");
  EXPECT_FALSE(makePrivateDirectory(root_ / "data", "pelora/key"));
  EXPECT_FALSE(fs::exists(outside / "key"));
  EXPECT_EQ(modeOf(outside), 0755u);

  const fs::path target = outside / "secret";
  writeFile(target, "secret");
  const fs::path missing = outside / "missing";
  fs::create_symlink(target, root_ / "to-file");
  fs::create_symlink(missing, root_ / "dangling");
  for (const char* link : {"to-file", "dangling"}) {
    SCOPED_TRACE(link);
    const std::string path = root_ / link;
    EXPECT_FALSE(createNewFile(path, O_RDWR | O_APPEND));
    EXPECT_EQ(errno, EEXIST);
    for (const int flags : {O_RDONLY, O_RDWR | O_APPEND, O_RDWR | O_CREAT}) {
      EXPECT_FALSE(openOwnFile(path, flags));
      EXPECT_EQ(errno, ELOOP);
    }
  }
  EXPECT_EQ(readFile(target), "secret");
  EXPECT_FALSE(fs::exists(missing));
}

// Only regular files and directories of this user's are used: a FIFO is refused without waiting
// for a writer, and so is what belongs to someone else (checked when the tests run as root).
TEST_F(PrivateFilesTest, OnlyRegularFilesAndDirectoriesOfOursAreUsed) {
  ASSERT_EQ(::mkfifo((root_ / "fifo").c_str(), 0600), 0);
  for (const int flags : {O_RDONLY, O_RDWR | O_APPEND}) {
    EXPECT_FALSE(openOwnFile(root_ / "fifo", flags));
    EXPECT_EQ(errno, EPERM);
  }
  writeFile(root_ / "file", "");
  EXPECT_FALSE(makePrivateDirectory(root_, "file"));
  EXPECT_EQ(errno, ENOTDIR);

  if (::geteuid() != 0) return;
  fs::create_directories(root_ / "theirs");
  writeFile(root_ / "theirs" / "batch", "theirs");
  fs::permissions(root_ / "theirs", static_cast<fs::perms>(0755));
  ASSERT_EQ(::chown((root_ / "theirs").c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(::chown((root_ / "theirs" / "batch").c_str(), kNobody, kNobody), 0);
  EXPECT_FALSE(makePrivateDirectory(root_, "theirs"));
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(modeOf(root_ / "theirs"), 0755u);
  EXPECT_FALSE(openOwnFile(root_ / "theirs" / "batch", O_RDWR | O_APPEND));
  EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace pelora::platform
