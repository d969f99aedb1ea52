#include "pelora/platform/user_defaults.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/support/temp_directory.hpp"

namespace pelora::platform {
namespace {

namespace fs = std::filesystem;

class UserDefaultsTest : public ::testing::Test {
 protected:
  fs::path file(const std::string& name = "suite") { return root_ / "pelora" / (name + ".json"); }
  void writeFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  test::TempDirectory dir_{"pelora-defaults"};
  const fs::path root_ = dir_.path();
};

TEST_F(UserDefaultsTest, ValuesPersistAcrossOpens) {
  const JSON object(JSON::Map{{"a", JSON(JSON::List{JSON(1), JSON(true)})}});
  {
    auto suite = UserDefaults::open(root_, "suite");
    ASSERT_TRUE(suite);
    EXPECT_TRUE(suite->synchronize());
    EXPECT_FALSE(fs::exists(file())) << "written without changes";
    suite->set("object", object);
    suite->set("null", JSON());
    suite->set("gone", JSON(1));
    suite->remove("gone");
    ASSERT_TRUE(suite->synchronize());
  }
  auto suite = UserDefaults::open(root_, "suite");
  EXPECT_EQ(suite->get("object"), object);
  EXPECT_EQ(suite->get("null"), JSON());
  EXPECT_EQ(suite->get("gone"), std::nullopt);
  // The atomic write leaves no temporary file behind, only the suite and its lock.
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(root_ / "pelora"))
    names.insert(entry.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{"suite.json", ".suite.json.lock"}));
}

// Two clients (or two processes) with one suite: each one's writes keep the other's values.
TEST_F(UserDefaultsTest, TwoSuitesOfOneNameKeepEachOthersChanges) {
  auto first = UserDefaults::open(root_, "suite");
  auto second = UserDefaults::open(root_, "suite");
  first->set("pelora.userId", JSON("u1"));
  first->set("shared", JSON(1));
  ASSERT_TRUE(first->synchronize());
  second->set("pelora.anonymousId", JSON("a2"));
  second->set("shared", JSON(2));
  ASSERT_TRUE(second->synchronize());
  first->remove("pelora.userId");
  ASSERT_TRUE(first->synchronize());

  auto reopened = UserDefaults::open(root_, "suite");
  EXPECT_EQ(reopened->get("pelora.userId"), std::nullopt);
  EXPECT_EQ(reopened->get("pelora.anonymousId"), JSON("a2"));
  EXPECT_EQ(reopened->get("shared"), JSON(2));
  EXPECT_EQ(first->get("pelora.anonymousId"), JSON("a2"));  // read back at its last write

  // A suite file that is no longer JSON is written over with this suite's own values.
  writeFile(file(), "{\"pelora.anonymousId\": ");
  first->set("late", JSON(true));
  ASSERT_TRUE(first->synchronize());
  reopened = UserDefaults::open(root_, "suite");
  EXPECT_EQ(reopened->get("late"), JSON(true));
  EXPECT_EQ(reopened->get("pelora.anonymousId"), JSON("a2"));
}

TEST_F(UserDefaultsTest, CorruptOrForeignContentOpensEmpty) {
  for (const std::string bytes : {"{\"a\": ", "[1, 2]", "{\"a\": \"\xff\"}"}) {
    writeFile(file(), bytes);
    auto suite = UserDefaults::open(root_, "suite");
    ASSERT_TRUE(suite);
    EXPECT_EQ(suite->get("a"), std::nullopt) << bytes;
    suite->set("a", JSON(2));
    ASSERT_TRUE(suite->synchronize());
    EXPECT_EQ(UserDefaults::open(root_, "suite")->get("a"), JSON(2));
  }
  fs::remove(file());
  fs::create_directories(file());  // a directory where the file should be
  EXPECT_EQ(UserDefaults::open(root_, "suite")->get("a"), std::nullopt);
}

TEST_F(UserDefaultsTest, NamesMustBeOneFileName) {
  for (const std::string& name :
       std::vector<std::string>{"", ".", "..", "a/b", "../x", std::string("a\0b", 3)})
    EXPECT_FALSE(UserDefaults::open(root_, name)) << name;
  EXPECT_TRUE(UserDefaults::open(root_, "com.pelora.storage.key"));
}

TEST_F(UserDefaultsTest, UnwritableDirectoryKeepsValuesAndRetries) {
  writeFile(root_ / "blocker", "a file where a directory should be");
  auto suite = UserDefaults::open(root_ / "blocker", "suite");
  suite->set("a", JSON(1));
  EXPECT_FALSE(suite->synchronize());
  EXPECT_EQ(suite->get("a"), JSON(1));

  fs::remove(root_ / "blocker");
  suite->set("b", JSON(2));
  ASSERT_TRUE(suite->synchronize());
  auto reopened = UserDefaults::open(root_ / "blocker", "suite");
  EXPECT_EQ(reopened->get("a"), JSON(1));
  EXPECT_EQ(reopened->get("b"), JSON(2));
}

// The suite, its lock and their directories are the user's alone, whatever the umask; a link
// planted as the suite or its lock is never written through.
TEST_F(UserDefaultsTest, FilesArePrivateAndLinksAreNotFollowed) {
  const fs::path preferences = root_ / "config";
  const mode_t saved = ::umask(002);
  auto suite = UserDefaults::open(preferences, "suite");
  suite->set("a", JSON(1));
  const bool written = suite->synchronize();
  ::umask(saved);
  ASSERT_TRUE(written);
  const auto mode = [](const fs::path& path) {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
  };
  for (const fs::path& dir : {preferences, preferences / "pelora"}) EXPECT_EQ(mode(dir), 0700u);
  for (const fs::path& made : {suite->file(), preferences / "pelora" / ".suite.json.lock"})
    EXPECT_EQ(mode(made), 0600u) << made;

  const fs::path outside = root_ / "outside";
  writeFile(outside / "values.json", R"({"b":2})");
  fs::create_symlink(outside / "values.json", preferences / "pelora" / "linked.json");
  auto linked = UserDefaults::open(preferences, "linked");
  EXPECT_EQ(linked->get("b"), std::nullopt);
  linked->set("c", JSON(3));
  ASSERT_TRUE(linked->synchronize());
  std::ifstream target(outside / "values.json");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(target), {}), R"({"b":2})");
  EXPECT_FALSE(fs::is_symlink(linked->file()));

  fs::create_symlink(outside / "lock", preferences / "pelora" / ".locked.json.lock");
  auto locked = UserDefaults::open(preferences, "locked");
  locked->set("d", JSON(4));
  EXPECT_FALSE(locked->synchronize());
  EXPECT_FALSE(fs::exists(outside / "lock"));
}

// A writer killed between writing its temporary file and renaming it leaves the file behind; the
// next write of the suite removes it (and nothing of other suites, nor the lock).
TEST_F(UserDefaultsTest, KilledWritersTemporaryFilesAreRemoved) {
  const fs::path directory = file().parent_path();
  writeFile(directory / ".suite.json.Ab12Cd", R"({"a":1})");
  writeFile(directory / ".other.json.Ab12Cd", R"({"a":1})");
  auto suite = UserDefaults::open(root_, "suite");
  suite->set("a", JSON(2));
  ASSERT_TRUE(suite->synchronize());

  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.insert(entry.path().filename().string());
  EXPECT_EQ(names, (std::set<std::string>{".other.json.Ab12Cd", ".suite.json.lock", "suite.json"}));
}

// reload() skips reading a file it has read unchanged; writes of the same size in quick succession
// (two between reloads, on file systems with coarse timestamps within one tick) are still changes
// it must see.
TEST_F(UserDefaultsTest, ReloadSeesEveryWriteOfAnotherSuiteEvenInQuickSuccession) {
  auto reader = UserDefaults::open(root_, "suite");
  auto writer = UserDefaults::open(root_, "suite");
  ASSERT_TRUE(reader && writer);
  for (int i = 0; i < 300; ++i) {
    const std::int64_t value = 10 + i % 90;  // always two digits: every file is the same size
    writer->set("k", JSON(value + 1 > 99 ? 10 : value + 1));
    ASSERT_TRUE(writer->synchronize());
    writer->set("k", JSON(value));
    ASSERT_TRUE(writer->synchronize());
    ASSERT_TRUE(reader->reload());
    ASSERT_EQ(reader->get("k"), JSON(value)) << i;
    ASSERT_TRUE(reader->reload());  // unchanged: the same value
    ASSERT_EQ(reader->get("k"), JSON(value)) << i;
  }
}

}  // namespace
}  // namespace pelora::platform
