#include "pelora/delivery/storage.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "pelora/delivery/settings.hpp"
#include "pelora/log/log.hpp"
#include "pelora/platform/user_defaults.hpp"

namespace pelora {
namespace {

namespace fs = std::filesystem;
using Files = std::vector<fs::path>;
using Key = Storage::Constants;

const std::string kHeader = "{ \"batch\": [";
// POSIX extended syntax (gtest's MatchesRegex): the closing text with any millisecond time.
const std::string kSentAt =
    R"([]],"sentAt":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z")";

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

TrackEvent event(const std::string& name) {
  TrackEvent e(name, JSON(JSON::Map{{"n", JSON(1)}, {"s", JSON("text")}}));
  e.messageId = "message-" + name;
  e.timestamp = "2024-05-01T08:09:10.123Z";
  return e;
}

std::string text(const TrackEvent& e) {
  return toString(e);
}

// What a finished batch looks like, whatever its sentAt.
std::string closing(const std::string& key) {
  return R"(],"sentAt":"2024-05-01T08:09:10.123Z","writeKey":")" + key + R"("})";
}

// An unfinished batch of exactly `size` bytes: the header and one padding event.
std::string batchOfSize(std::size_t size) {
  const std::string open = kHeader + R"({"pad":")";
  return open + std::string(size - open.size() - 2, 'x') + "\"}";
}

std::vector<std::string> names(const Files& files) {
  std::vector<std::string> out;
  for (const auto& file : files) out.push_back(file.filename().string());
  return out;
}

class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "pelora-storage-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    paths_ = {root_ / "Documents", root_ / "config"};
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  std::shared_ptr<Storage> storage(const std::string& key = "write-key") {
    return Storage::create(nullptr, key, paths_);
  }
  fs::path eventsDir(const std::string& key = "write-key") {
    return paths_.documents / "pelora" / detail::safeFileName(key);
  }
  // Writes the stored event index the way an earlier run would have left it.
  void storeIndex(std::uint64_t index, const std::string& key = "write-key") {
    auto suite = platform::UserDefaults::open(paths_.preferences,
                                              "com.pelora.storage." + detail::safeFileName(key));
    suite->set("pelora.events", JSON(index));
    ASSERT_TRUE(suite->synchronize());
  }
  std::optional<JSON> storedIndex(const std::string& key = "write-key") {
    return platform::UserDefaults::open(paths_.preferences,
                                        "com.pelora.storage." + detail::safeFileName(key))
        ->get("pelora.events");
  }

  fs::path root_;
  platform::Paths paths_;
};

TEST_F(StorageTest, EventsAreAppendedWithOneCommaBetween) {
  auto s = storage();
  s->write(Key::events, event("first"));
  const fs::path file = eventsDir() / "0-pelora-events";
  EXPECT_EQ(readFile(file), kHeader + text(event("first")));

  MonitorEvent monitor(JSON("identity"), "seen", JSON(JSON::Map{}), std::nullopt);
  s->write(Key::events, monitor);
  EXPECT_EQ(readFile(file), kHeader + text(event("first")) + "," + toString(monitor));
}

TEST_F(StorageTest, ListingFinishesTheBatchAndMovesTheIndex) {
  auto s = storage();
  s->write(Key::events, event("a"));
  s->write(Key::events, event("b"));
  const Files files = s->read<Files>(Key::events).value();
  ASSERT_EQ(names(files), std::vector<std::string>{"0-pelora-events.temp"});
  EXPECT_EQ(files[0], eventsDir() / "0-pelora-events.temp");

  const std::string bytes = readFile(files[0]);
  const std::string events = kHeader + text(event("a")) + "," + text(event("b"));
  ASSERT_EQ(bytes.substr(0, events.size()), events);
  EXPECT_THAT(bytes.substr(events.size()),
              testing::MatchesRegex(kSentAt + R"(,"writeKey":"write-key"[}])"));
  EXPECT_EQ(JSON::parse(bytes)["batch"]->listPointer()->size(), 2u);
  EXPECT_EQ(storedIndex(), JSON(1));

  // Nothing stored since: no empty batch, and the index stays.
  EXPECT_EQ(names(*s->read<Files>(Key::events)), std::vector<std::string>{"0-pelora-events.temp"});
  EXPECT_EQ(storedIndex(), JSON(1));

  s->write(Key::events, event("c"));
  EXPECT_EQ(readFile(eventsDir() / "1-pelora-events"), kHeader + text(event("c")));
}

TEST_F(StorageTest, FileJustBelowRollOverTakesOneMoreEvent) {
  fs::create_directories(eventsDir());
  const std::string existing = batchOfSize(474'999);
  writeFile(eventsDir() / "0-pelora-events", existing);

  storage()->write(Key::events, event("a"));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events"), existing + "," + text(event("a")));
  EXPECT_FALSE(fs::exists(eventsDir() / "0-pelora-events.temp"));
}

TEST_F(StorageTest, FileAtRollOverIsFinishedBeforeTheEvent) {
  fs::create_directories(eventsDir());
  const std::string existing = batchOfSize(475'000);
  writeFile(eventsDir() / "0-pelora-events", existing);

  auto s = storage();
  s->write(Key::events, event("a"));
  const std::string finished = readFile(eventsDir() / "0-pelora-events.temp");
  EXPECT_EQ(finished.substr(0, existing.size()), existing);
  EXPECT_THAT(finished.substr(existing.size()),
              testing::MatchesRegex(kSentAt + R"(,"writeKey":"write-key"[}])"));
  EXPECT_FALSE(fs::exists(eventsDir() / "0-pelora-events"));
  EXPECT_EQ(readFile(eventsDir() / "1-pelora-events"), kHeader + text(event("a")));
  EXPECT_EQ(storedIndex(), JSON(1));
}

TEST_F(StorageTest, ListsOnlyFinishedFilesInLexicalOrder) {
  fs::create_directories(eventsDir() / "dir.temp");
  for (const char* name : {"2-pelora-events.temp", "10-pelora-events.temp", "notes.txt",
                           ".hidden.temp", "3-pelora-events.tmp"})
    writeFile(eventsDir() / name, "{}");

  auto s = storage();
  EXPECT_EQ(names(*s->read<Files>(Key::events)),
            (std::vector<std::string>{"10-pelora-events.temp", "2-pelora-events.temp"}));
  // The index moved past the finished files found on disk.
  s->write(Key::events, event("a"));
  EXPECT_TRUE(fs::exists(eventsDir() / "11-pelora-events"));
}

TEST_F(StorageTest, ValuesRoundTripAndOutliveTheInstance) {
  const JSON traits(JSON::Map{{"plan", JSON("pro")}, {"age", JSON(42)}});
  const Settings settings("write-key", "api.example.test");
  {
    auto s = storage();
    s->write(Key::userId, std::string("user-1"));
    s->write(Key::traits, traits);
    s->write(Key::anonymousId, std::string("ANON-1"));
    s->write(Key::settings, settings);
    EXPECT_EQ(s->read<std::string>(Key::userId), "user-1");
    EXPECT_EQ(s->read<std::int64_t>(Key::userId), std::nullopt);  // stored, but not a number
  }
  auto s = storage();
  EXPECT_EQ(s->read<std::string>(Key::userId), "user-1");
  EXPECT_EQ(s->read<JSON>(Key::traits), traits);
  EXPECT_EQ(s->read<std::string>(Key::anonymousId), "ANON-1");
  EXPECT_EQ(s->read<Settings>(Key::settings), settings);

  s->write(Key::userId, std::optional<std::string>());
  EXPECT_EQ(s->read<std::string>(Key::userId), std::nullopt);
  EXPECT_EQ(storage()->read<std::string>(Key::userId), std::nullopt);
  EXPECT_EQ(storage("other-key")->read<std::string>(Key::anonymousId), std::nullopt);

  // Only events go into batch files, and events are not suite values.
  s->write(Key::events, std::string("not an event"));
  EXPECT_FALSE(fs::exists(eventsDir() / "0-pelora-events"));
  EXPECT_EQ(s->read<std::string>(Key::events), std::nullopt);
}

TEST_F(StorageTest, WriteKeysBecomeOneSafeFileName) {
  EXPECT_EQ(detail::safeFileName("."), "%2E");
  EXPECT_EQ(detail::safeFileName(".."), "%2E%2E");
  EXPECT_EQ(detail::safeFileName("a/b"), "a%2Fb");
  EXPECT_EQ(detail::safeFileName(""), "%empty");
  EXPECT_EQ(detail::safeFileName("%empty"), "%25empty");
  EXPECT_EQ(detail::safeFileName(std::string("nul\0byte", 8)), "nul%00byte");
  const std::string longKey(300, '/');
  EXPECT_LE(detail::safeFileName(longKey).size(), 160u);
  EXPECT_NE(detail::safeFileName(longKey), detail::safeFileName(longKey + "/"));
}

TEST_F(StorageTest, WriteKeysNeverLeaveTheirDirectories) {
  const std::vector<std::string> keys = {
      "../../x", "a/b", ".", "..", "", std::string("nul\0byte", 8), std::string(300, '.')};
  std::set<fs::path> directories;
  for (const auto& key : keys) {
    auto s = storage(key);
    s->write(Key::userId, std::string("user"));
    s->write(Key::events, event("a"));
    const Files files = *s->read<Files>(Key::events);
    ASSERT_EQ(files.size(), 1u) << key;
    EXPECT_EQ(files[0].parent_path(), s->eventsDirectory());
    EXPECT_EQ(s->eventsDirectory().parent_path(), paths_.documents / "pelora");
    directories.insert(s->eventsDirectory());
    // The batch names the key exactly as given.
    const std::string bytes = readFile(files[0]);
    EXPECT_TRUE(bytes.ends_with("\"writeKey\":\"" + key + "\"}")) << key;
    EXPECT_EQ(storage(key)->read<std::string>(Key::userId), "user") << key;
  }
  EXPECT_EQ(directories.size(), keys.size());

  // Nothing anywhere but one directory per key and one suite file per key.
  std::size_t suites = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root_)) {
    if (!entry.is_regular_file()) continue;
    const fs::path path = entry.path();
    if (path.parent_path() == paths_.preferences / "pelora") {
      ++suites;
    } else {
      EXPECT_EQ(directories.count(path.parent_path()), 1u) << path;
    }
  }
  EXPECT_EQ(suites, keys.size());
  EXPECT_FALSE(fs::exists(root_ / "x"));
}

TEST_F(StorageTest, UnwritableDocumentsLoseEventsQuietlyUntilWritable) {
  writeFile(root_ / "blocker", "a file where a directory should be");
  paths_.documents = root_ / "blocker" / "Documents";
  auto s = storage();
  s->write(Key::events, event("lost"));
  EXPECT_TRUE(s->read<Files>(Key::events)->empty());

  fs::remove(root_ / "blocker");
  s->write(Key::events, event("kept"));
  const Files files = *s->read<Files>(Key::events);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(JSON::parse(readFile(files[0]))["batch"], JSON(JSON::List{JSON::with(event("kept"))}));
}

TEST_F(StorageTest, BatchDeletedWhileOpenStartsAgain) {
  auto s = storage();
  s->write(Key::events, event("a"));
  fs::remove_all(eventsDir());
  s->write(Key::events, event("b"));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events"), kHeader + text(event("b")));
}

TEST_F(StorageTest, FullDiskLeavesTheBatchValid) {
  fs::create_directories(eventsDir());
  const std::string existing = batchOfSize(400'000);
  writeFile(eventsDir() / "0-pelora-events", existing);
  auto s = storage();

  // Room for part of an event only: the torn write must be cut back.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit tight = saved;
  tight.rlim_cur = existing.size() + 10;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  log::setDebugEnabled(true);
  testing::internal::CaptureStdout();
  s->write(Key::events, event("lost"));
  const Files whileFull = *s->read<Files>(Key::events);
  const std::string output = testing::internal::GetCapturedStdout();
  log::setDebugEnabled(false);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &saved), 0);
  std::signal(SIGXFSZ, previous);

  EXPECT_TRUE(whileFull.empty());
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events"), existing);
  EXPECT_NE(output.find("finish(file:)"), std::string::npos);
  EXPECT_NE(output.find("Event storage " + (eventsDir() / "0-pelora-events").string() +
                        " has some kind of problem."),
            std::string::npos);

  s->write(Key::events, event("kept"));
  const Files files = *s->read<Files>(Key::events);
  ASSERT_EQ(names(files), std::vector<std::string>{"0-pelora-events.temp"});
  EXPECT_EQ(JSON::parse(readFile(files[0]))["batch"]->listPointer()->size(), 2u);
}

TEST_F(StorageTest, ClosedButNotRenamedBatchIsNeverAppendedTo) {
  fs::create_directories(eventsDir());
  const std::string closed = kHeader + text(event("a")) + closing("write-key");
  writeFile(eventsDir() / "0-pelora-events", closed);

  auto s = storage();
  s->write(Key::events, event("b"));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events.temp"), closed);
  EXPECT_EQ(readFile(eventsDir() / "1-pelora-events"), kHeader + text(event("b")));
  EXPECT_EQ(names(*s->read<Files>(Key::events)),
            (std::vector<std::string>{"0-pelora-events.temp", "1-pelora-events.temp"}));

  // Found by a listing instead: only renamed.
  writeFile(eventsDir() / "2-pelora-events", closed);
  EXPECT_EQ(names(*storage()->read<Files>(Key::events)).back(), "2-pelora-events.temp");
  EXPECT_EQ(readFile(eventsDir() / "2-pelora-events.temp"), closed);
  EXPECT_EQ(storedIndex(), JSON(3));
}

TEST_F(StorageTest, RenamedButIndexNotStoredNeverReplacesTheTemp) {
  fs::create_directories(eventsDir());
  storeIndex(0);
  const std::string finished = kHeader + text(event("a")) + closing("write-key");
  writeFile(eventsDir() / "0-pelora-events.temp", finished);

  auto s = storage();
  s->write(Key::events, event("b"));
  EXPECT_EQ(readFile(eventsDir() / "1-pelora-events"), kHeader + text(event("b")));
  EXPECT_EQ(names(*s->read<Files>(Key::events)),
            (std::vector<std::string>{"0-pelora-events.temp", "1-pelora-events.temp"}));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events.temp"), finished);
  EXPECT_EQ(storedIndex(), JSON(2));
}

TEST_F(StorageTest, StoppedBeforeTheFirstEventLeavesNoStrayComma) {
  fs::create_directories(eventsDir());
  writeFile(eventsDir() / "0-pelora-events", "");  // created, header never written
  storage()->write(Key::events, event("a"));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events"), kHeader + text(event("a")));

  fs::remove(eventsDir() / "0-pelora-events");
  writeFile(eventsDir() / "0-pelora-events", kHeader);  // header, no event yet
  auto s = storage();
  EXPECT_TRUE(s->read<Files>(Key::events)->empty());  // nothing to send: no empty batch
  s->write(Key::events, event("b"));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events"), kHeader + text(event("b")));
}

TEST_F(StorageTest, EarlierUnfinishedBatchesAreFinishedAtStart) {
  fs::create_directories(eventsDir());
  storeIndex(3);
  const std::string closed = kHeader + text(event("a")) + closing("write-key");
  writeFile(eventsDir() / "0-pelora-events", kHeader);
  writeFile(eventsDir() / "1-pelora-events", closed);
  writeFile(eventsDir() / "2-pelora-events", kHeader + text(event("b")));

  auto s = storage();
  EXPECT_EQ(names(*s->read<Files>(Key::events)),
            (std::vector<std::string>{"1-pelora-events.temp", "2-pelora-events.temp"}));
  EXPECT_FALSE(fs::exists(eventsDir() / "0-pelora-events"));
  EXPECT_EQ(readFile(eventsDir() / "1-pelora-events.temp"), closed);
  EXPECT_EQ(JSON::parse(readFile(eventsDir() / "2-pelora-events.temp"))["batch"],
            JSON(JSON::List{JSON::with(event("b"))}));
  s->write(Key::events, event("c"));
  EXPECT_TRUE(fs::exists(eventsDir() / "3-pelora-events"));
}

TEST_F(StorageTest, TempNameTakenAtFinishGetsAnotherName) {
  auto s = storage();
  s->write(Key::events, event("a"));
  writeFile(eventsDir() / "0-pelora-events.temp", "someone else's");
  EXPECT_EQ(names(*s->read<Files>(Key::events)),
            (std::vector<std::string>{"0-pelora-events.1.temp", "0-pelora-events.temp"}));
  EXPECT_EQ(readFile(eventsDir() / "0-pelora-events.temp"), "someone else's");
}

TEST_F(StorageTest, RenameFailureIsPrintedAndLogged) {
  auto s = storage();
  s->write(Key::events, event("a"));
  fs::remove(eventsDir() / "0-pelora-events");  // gone while the batch is open

  log::setDebugEnabled(true);
  testing::internal::CaptureStdout();
  const Files files = *s->read<Files>(Key::events);
  const std::string output = testing::internal::GetCapturedStdout();
  log::setDebugEnabled(false);

  EXPECT_TRUE(files.empty());
  const std::string message =
      "Unable to rename to temp: " + (eventsDir() / "0-pelora-events").string() +
      ", Error: No such file or directory";
  EXPECT_NE(output.find(message + "\n"), std::string::npos);  // the console line
  EXPECT_NE(output.find("finish(file:):"), std::string::npos);
  EXPECT_EQ(storedIndex(), JSON(1));
}

TEST_F(StorageTest, RemoveDeletesAndThrowsForAMissingFile) {
  auto s = storage();
  s->write(Key::events, event("a"));
  const fs::path file = s->read<Files>(Key::events)->at(0);
  s->sync([&] { s->remove(file); });  // as the upload completion does
  EXPECT_FALSE(fs::exists(file));
  EXPECT_THROW(s->remove(file), fs::filesystem_error);
}

TEST_F(StorageTest, ConcurrentWritersLoseNothing) {
  auto s = storage();
  constexpr int kThreads = 4, kEach = 40;
  std::vector<std::thread> threads;
  std::vector<Files> listed(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        s->write(Key::events, event(std::to_string(t) + "-" + std::to_string(i)));
        if (i % 10 == 9) listed[t] = *s->read<Files>(Key::events);
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::set<std::string> seen;
  const Files files = *s->read<Files>(Key::events);
  for (const auto& file : files) {
    const JSON batch = *JSON::parse(readFile(file))["batch"];
    for (const auto& e : *batch.listPointer())
      EXPECT_TRUE(seen.insert(*e["messageId"]->stringPointer()).second);
  }
  EXPECT_EQ(seen.size(), std::size_t{kThreads * kEach});
}

}  // namespace
}  // namespace pelora
