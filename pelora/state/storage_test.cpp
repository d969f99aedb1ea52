#include "pelora/state/storage.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

#include <csignal>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "pelora/platform/logging.hpp"
#include "pelora/platform/user_defaults.hpp"
#include "tests/support/temp_directory.hpp"

namespace pelora {
namespace {

namespace fs = std::filesystem;
using Files = std::vector<fs::path>;
using Key = Storage::Key;
using Names = std::vector<std::string>;

const std::string kHeader = "{ \"batch\": [";
// POSIX extended syntax (gtest's MatchesRegex): the closing text with any millisecond time.
const std::string kSentAt =
    R"([]],"sentAt":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z")";

std::string readBytes(const fs::path& path) {
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

// The unfinished batch holding `names`, as storage writes it.
std::string batchOf(std::initializer_list<const char*> names) {
  std::string bytes = kHeader;
  for (const char* name : names) bytes += (bytes == kHeader ? "" : ",") + toString(event(name));
  return bytes;
}

// A finished batch of `name` for `key`, whatever its sentAt.
std::string closedBatchOf(const char* name, const std::string& key = "write-key") {
  return batchOf({name}) + R"(],"sentAt":"2024-05-01T08:09:10.123Z","writeKey":")" + key + "\"}";
}

// An unfinished batch of exactly `size` bytes: the header and one padding event.
std::string batchOfSize(std::size_t size) {
  const std::string open = kHeader + R"({"pad":")";
  return open + std::string(size - open.size() - 2, 'x') + "\"}";
}

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

// What `action` prints with debug logs on.
template <class Action>
std::string printedByDebugLogs(Action action) {
  platform::log::setDebugEnabled(true);
  testing::internal::CaptureStdout();
  action();
  const std::string output = testing::internal::GetCapturedStdout();
  platform::log::setDebugEnabled(false);
  return output;
}

// Every case runs twice: events recorded through the journal and its background writer, and
// events that each sync their own write.
class StorageTest : public ::testing::TestWithParam<bool> {
 protected:
  std::shared_ptr<Storage> storage(const std::string& key = "write-key") {
    auto made = Storage::create(nullptr, key, paths_, {.syncEveryEvent = GetParam()});
    made_.push_back(made);
    return made;
  }
  // A file's bytes, once every live storage of the test has written out what it recorded.
  std::string readFile(const fs::path& path) {
    writeOut();
    return readBytes(path);
  }
  // Whether `path` exists once every live storage has written out what it recorded.
  bool exists(const fs::path& path) {
    writeOut();
    return fs::exists(path);
  }
  void writeOut() {
    for (const auto& weak : made_) {
      if (auto made = weak.lock()) made->syncEvents();
    }
  }
  // The batch events in a finished file.
  JSON eventsIn(const fs::path& file) {
    return JSON::parse(readFile(file))["batch"].value_or(JSON());
  }
  fs::path eventsDir(const std::string& key = "write-key") {
    return paths_.documents / "pelora" / detail::safeFileName(key);
  }
  fs::path file(const std::string& name, const std::string& key = "write-key") {
    return eventsDir(key) / name;
  }
  // Leaves a batch file the way an earlier run would have.
  void leave(const std::string& name, const std::string& bytes,
             const std::string& key = "write-key") {
    fs::create_directories(eventsDir(key));
    writeFile(file(name, key), bytes);
  }
  Names listed(Storage& s) {
    Names names;
    for (const auto& path : s.finishAndList()) names.push_back(path.filename().string());
    return names;
  }
  std::optional<platform::UserDefaults> suite(const std::string& key = "write-key") {
    return platform::UserDefaults::open(paths_.preferences,
                                        "com.pelora.storage." + detail::safeFileName(key));
  }
  std::optional<JSON> storedIndex(const std::string& key = "write-key") {
    return suite(key)->get("pelora.events");
  }
  // Stores the event index the way an earlier run would have left it.
  void storeIndex(std::uint64_t index) {
    auto defaults = suite();
    defaults->set("pelora.events", JSON(index));
    ASSERT_TRUE(defaults->synchronize());
  }

  test::TempDirectory root_{"pelora-storage"};
  platform::Paths paths_{root_.path() / "Documents", root_.path() / "config",
                         root_.path() / "journals"};
  std::vector<std::weak_ptr<Storage>> made_;
};

INSTANTIATE_TEST_SUITE_P(Recording, StorageTest, ::testing::Bool(), [](const auto& info) {
  return info.param ? "SyncEveryEvent" : "Journal";
});

TEST_P(StorageTest, ListingFinishesTheBatchAndMovesTheIndex) {
  auto s = storage();
  s->write(Key::events, event("a"));
  s->write(Key::events, event("b"));
  EXPECT_EQ(s->finishAndList(), Files{file("0-pelora-events.temp")});
  const std::string bytes = readFile(file("0-pelora-events.temp"));
  const std::string events = batchOf({"a", "b"});
  ASSERT_EQ(bytes.substr(0, events.size()), events);
  EXPECT_THAT(bytes.substr(events.size()),
              testing::MatchesRegex(kSentAt + R"(,"writeKey":"write-key"[}])"));
  EXPECT_EQ(eventsIn(file("0-pelora-events.temp")).listPointer()->size(), 2u);
  EXPECT_EQ(storedIndex(), JSON(1));

  // Nothing stored since: no empty batch, and the index stays.
  EXPECT_EQ(listed(*s), Names{"0-pelora-events.temp"});
  EXPECT_EQ(storedIndex(), JSON(1));
  s->write(Key::events, event("c"));
  EXPECT_EQ(readFile(file("1-pelora-events")), batchOf({"c"}));
}

TEST_P(StorageTest, RollOverAt475000Bytes) {
  // Just below, the file takes one more event; at the limit it is finished before the event.
  for (const std::size_t size : {474'999u, 475'000u}) {
    SCOPED_TRACE(size);
    const std::string key = "key-" + std::to_string(size);
    const std::string existing = batchOfSize(size);
    leave("0-pelora-events", existing, key);
    storage(key)->write(Key::events, event("a"));
    if (size < 475'000) {
      EXPECT_EQ(readFile(file("0-pelora-events", key)), existing + "," + toString(event("a")));
      EXPECT_FALSE(exists(file("0-pelora-events.temp", key)));
      continue;
    }
    const std::string finished = readFile(file("0-pelora-events.temp", key));
    EXPECT_EQ(finished.substr(0, existing.size()), existing);
    EXPECT_THAT(finished.substr(existing.size()),
                testing::MatchesRegex(kSentAt + ",\"writeKey\":\"" + key + "\"[}]"));
    EXPECT_FALSE(exists(file("0-pelora-events", key)));
    EXPECT_EQ(readFile(file("1-pelora-events", key)), batchOf({"a"}));
    EXPECT_EQ(storedIndex(key), JSON(1));
  }
}

TEST_P(StorageTest, ListsOnlyFinishedFilesInLexicalOrder) {
  fs::create_directories(eventsDir() / "dir.temp");
  for (const char* name : {"2-pelora-events.temp", "10-pelora-events.temp", "notes.txt",
                           ".hidden.temp", "3-pelora-events.tmp"})
    leave(name, "{}");
  auto s = storage();
  EXPECT_EQ(listed(*s), (Names{"10-pelora-events.temp", "2-pelora-events.temp"}));
  // The index moved past the finished files found on disk.
  s->write(Key::events, event("a"));
  EXPECT_TRUE(exists(file("11-pelora-events")));
}

TEST_P(StorageTest, ValuesAreClearedByAnEmptyValueAndEventsAreNoValue) {
  auto s = storage();
  s->write(Key::userId, std::string("user-1"));
  EXPECT_EQ(s->read<std::int64_t>(Key::userId), std::nullopt);  // stored, but not a number
  s->write(Key::userId, std::optional<std::string>());
  EXPECT_EQ(storage()->read<std::string>(Key::userId), std::nullopt);
  // Only events go into batch files, and events are not suite values.
  s->write(Key::events, std::string("not an event"));
  EXPECT_FALSE(exists(file("0-pelora-events")));
  EXPECT_EQ(s->read<std::string>(Key::events), std::nullopt);
}

// Each key gets one directory of its own, named by an encoding existing installs depend on.
TEST_P(StorageTest, WriteKeysNeverLeaveTheirDirectories) {
  using Case = std::pair<std::string, std::string>;
  const std::vector<Case> cases = {{".", "%2E"},
                                   {"..", "%2E%2E"},
                                   {"a/b", "a%2Fb"},
                                   {"", "%empty"},
                                   {"%empty", "%25empty"},
                                   {std::string("nul\0byte", 8), "nul%00byte"},
                                   {"../../x", ""},
                                   {std::string(300, '/'), ""},
                                   {std::string(301, '/'), ""}};
  std::set<fs::path> directories;
  for (const auto& [key, name] : cases) {
    auto s = storage(key);
    s->write(Key::userId, std::string("user"));
    s->write(Key::events, event("a"));
    const Files files = s->finishAndList();
    ASSERT_EQ(files.size(), 1u) << key;
    EXPECT_EQ(files[0].parent_path(), s->eventsDirectory());
    EXPECT_EQ(s->eventsDirectory().parent_path(), paths_.documents / "pelora");
    if (!name.empty()) {
      EXPECT_EQ(s->eventsDirectory().filename(), name);
    }
    EXPECT_LE(s->eventsDirectory().filename().string().size(), 160u);
    directories.insert(s->eventsDirectory());
    // The batch names the key exactly as given, as a JSON string.
    EXPECT_EQ(JSON::parse(readFile(files[0]))["writeKey"], JSON(key)) << key;
    EXPECT_EQ(storage(key)->read<std::string>(Key::userId), "user") << key;
  }
  EXPECT_EQ(directories.size(), cases.size());
  EXPECT_FALSE(exists(root_.path() / "x"));
}

// Whatever the key holds, every finished batch is JSON; an ordinary key is written as it is.
TEST_P(StorageTest, WriteKeyIsWrittenIntoTheBatchAsAJSONString) {
  for (const std::string key :
       {"write-key", "quote\"d", "back\\slash", "tab\tnew\nline\x1F", "Tự động", "\"}]"}) {
    auto s = storage(key);
    s->write(Key::events, event("a"));
    const Files files = s->finishAndList();
    ASSERT_EQ(files.size(), 1u) << key;
    const std::string text = readFile(files[0]);
    EXPECT_EQ(JSON::parse(text)["writeKey"], JSON(key)) << text;
    EXPECT_EQ(JSON::parse(text)["batch"], JSON(JSON::List{JSON::with(event("a"))})) << text;
  }
  EXPECT_TRUE(readFile(file("0-pelora-events.temp")).ends_with(R"(","writeKey":"write-key"})"));
}

TEST_P(StorageTest, UnwritableDocumentsLoseEventsUntilWritable) {
  writeFile(root_.path() / "blocker", "a file where a directory should be");
  paths_.documents = root_.path() / "blocker" / "Documents";
  auto s = storage();
  s->write(Key::events, event("lost"));
  writeOut();
  EXPECT_TRUE(s->finishAndList().empty());

  fs::remove(root_.path() / "blocker");
  s->write(Key::events, event("kept"));
  const Files files = s->finishAndList();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(eventsIn(files[0]), JSON(JSON::List{JSON::with(event("kept"))}));
}

// The open batch is checked for a deletion now and then (not for every event): events written
// before the check go with the deleted file, the first one after starts a new batch.
TEST_P(StorageTest, BatchDeletedWhileOpenStartsAgainSoonAfter) {
  auto s = storage();
  s->write(Key::events, event("a"));
  fs::remove_all(eventsDir());
  int lost = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!exists(file("0-pelora-events")) && std::chrono::steady_clock::now() < deadline) {
    s->write(Key::events, event("b" + std::to_string(lost++)));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_TRUE(exists(file("0-pelora-events")));
  s->write(Key::events, event("c"));
  const Files files = s->finishAndList();
  ASSERT_EQ(files.size(), 1u);
  const JSON batch = eventsIn(files[0]);
  ASSERT_EQ(batch.listPointer()->size(), 2u) << "the event that noticed it, then c";
  EXPECT_EQ(*(*batch.listPointer())[1]["event"]->stringPointer(), "c");
}

TEST_P(StorageTest, FullDiskLeavesTheBatchValid) {
  const std::string existing = batchOfSize(400'000);
  leave("0-pelora-events", existing);
  auto s = storage();

  // Room for part of an event only: the torn write must be cut back.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit tight = saved;
  tight.rlim_cur = existing.size() + 10;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  Files whileFull;
  const std::string output = printedByDebugLogs([&] {
    s->write(Key::events, event("lost"));
    whileFull = s->finishAndList();
  });
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &saved), 0);
  std::signal(SIGXFSZ, previous);

  EXPECT_TRUE(whileFull.empty());
  EXPECT_EQ(readFile(file("0-pelora-events")), existing);
  EXPECT_NE(output.find("finish(file:)"), std::string::npos);
  EXPECT_NE(output.find("Event storage " + file("0-pelora-events").string() +
                        " has some kind of problem."),
            std::string::npos);

  s->write(Key::events, event("kept"));
  EXPECT_EQ(listed(*s), Names{"0-pelora-events.temp"});
  EXPECT_EQ(eventsIn(file("0-pelora-events.temp")).listPointer()->size(), 2u);
}

// Stopped after closing a batch but before renaming it, or after renaming it but before storing
// the next index: the finished batch is kept as it is, never appended to or replaced.
TEST_P(StorageTest, InterruptedFinishKeepsTheClosedBatch) {
  for (const std::string left : {"0-pelora-events", "0-pelora-events.temp"}) {
    SCOPED_TRACE(left);
    leave(left, closedBatchOf("a", left), left);
    auto s = storage(left);
    s->write(Key::events, event("b"));
    EXPECT_EQ(readFile(file("1-pelora-events", left)), batchOf({"b"}));
    EXPECT_EQ(listed(*s), (Names{"0-pelora-events.temp", "1-pelora-events.temp"}));
    EXPECT_EQ(readFile(file("0-pelora-events.temp", left)), closedBatchOf("a", left));
    EXPECT_EQ(storedIndex(left), JSON(2));
  }
}

TEST_P(StorageTest, StoppedBeforeTheFirstEventLeavesNoStrayComma) {
  leave("0-pelora-events", "");  // created, header never written
  storage()->write(Key::events, event("a"));
  EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"a"}));

  leave("0-pelora-events", kHeader);  // header, no event yet
  auto s = storage();
  EXPECT_TRUE(s->finishAndList().empty());  // nothing to send: no empty batch
  s->write(Key::events, event("b"));
  EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"b"}));
}

// A host killed while an event (or the closing text) was being written leaves a torn tail. The
// next start cuts it back to the end of the last whole event, so that every event acknowledged
// before it survives and the finished batch is JSON.
TEST_P(StorageTest, TornTailIsCutBackToTheLastWholeEvent) {
  const std::string c = toString(event("c"));
  using Case = std::pair<std::string, std::string>;
  const std::vector<Case> cases = {
      {"half an event", batchOf({"a", "b"}) + "," + c.substr(0, c.size() / 2)},
      {"all but its last byte", batchOf({"a", "b"}) + "," + c.substr(0, c.size() - 1)},
      {"a comma", batchOf({"a", "b"}) + ","},
      {"closing text", batchOf({"a", "b"}) + R"(],"sentAt":"2024-05-01T08:0)"},
      {"closing text and more", batchOf({"a", "b"}) + R"(],"sentAt":"x","writeKey":"k"}{)"},
      {"a number out of range", batchOf({"a", "b"}) + R"(,{"n":1e999})"},
      {"a control byte", batchOf({"a", "b"}) + ",{\"s\":\"\x1B\"}"},
      {"a lone surrogate", batchOf({"a", "b"}) + R"(,{"s":"\ude00"})"},
      {"invalid UTF-8", batchOf({"a", "b"}) + ",{\"s\":\"\xC3(\"}"},
      {"not an object", batchOf({"a", "b"}) + ",[1]"},
      {"too deep", batchOf({"a", "b"}) + ",{\"d\":" + std::string(600, '[')},
      {"closing text, a NUL and more",
       batchOf({"a", "b"}) + R"(],"sentAt":"x","writeKey":"k"})" + std::string("\0{}", 3)},
      // Nothing after a refused event is kept: only a crash in the last write can tear a batch.
      {"whole events after a refused one", batchOf({"a", "b"}) + ",{\"n\":1e999}," + c},
  };
  for (const auto& [what, left] : cases) {
    SCOPED_TRACE(what);
    fs::remove_all(root_.path());
    leave("0-pelora-events", left);
    auto s = storage();
    s->write(Key::events, event("d"));
    EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"a", "b", "d"}));
    ASSERT_EQ(listed(*s), Names{"0-pelora-events.temp"});
    EXPECT_EQ(eventsIn(file("0-pelora-events.temp")).listPointer()->size(), 3u);
  }

  // A torn first event leaves the header alone; a torn header is written again.
  for (const std::string& left : {kHeader + c.substr(0, 20), kHeader.substr(0, 5)}) {
    fs::remove_all(root_.path());
    leave("0-pelora-events", left);
    storage()->write(Key::events, event("d"));
    EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"d"})) << left;
  }
}

// Every writer holds an flock on the batch it appends to; a locked batch belongs to a live writer
// (another client or process) and is neither written to nor finished by anyone else.
TEST_P(StorageTest, LockedBatchesBelongToTheirWriter) {
  leave("0-pelora-events", batchOf({"theirs"}));
  const int theirs = ::open(file("0-pelora-events").c_str(), O_RDWR);
  ASSERT_EQ(::flock(theirs, LOCK_EX | LOCK_NB), 0);
  auto s = storage();
  s->write(Key::events, event("mine"));
  EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"theirs"}));
  EXPECT_EQ(readFile(file("1-pelora-events")), batchOf({"mine"}));
  EXPECT_EQ(listed(*s), Names{"1-pelora-events.temp"});
  EXPECT_EQ(readFile(file("0-pelora-events")), batchOf({"theirs"}));

  // Their writer crashed: the lock went with it, and the next listing finishes their batch.
  ::close(theirs);
  EXPECT_EQ(listed(*s), (Names{"0-pelora-events.temp", "1-pelora-events.temp"}));
  EXPECT_EQ(eventsIn(file("0-pelora-events.temp")), JSON(JSON::List{JSON::with(event("theirs"))}));

  // One uploader at a time, whichever storage it came from.
  auto first = s->claimUploads();
  EXPECT_TRUE(first);
  EXPECT_FALSE(storage()->claimUploads());
  first.release();
  EXPECT_TRUE(storage()->claimUploads());
}

// Another writer of the key finished a hundred batches while this one filled one: its next batch
// goes past all of them, whatever their number, and its next event is stored.
TEST_P(StorageTest, AWriterFarBehindAnotherGoesPastItsBatches) {
  auto behind = storage();
  behind->write(Key::events, event("behind-0"));
  auto ahead = storage();
  for (int i = 0; i < 100; ++i) {
    ahead->write(Key::events, event("ahead-" + std::to_string(i)));
    (void)ahead->finishAndList();  // finishes it
  }
  (void)behind->finishAndList();
  behind->write(Key::events, event("behind-1"));
  (void)behind->finishAndList();

  std::set<std::string> stored;
  for (const auto& entry : fs::directory_iterator(eventsDir())) {
    const JSON events = eventsIn(entry.path());
    for (const auto& e : *events.listPointer()) stored.insert(*e["event"]->stringPointer());
  }
  EXPECT_EQ(stored.size(), 102u);
  EXPECT_TRUE(stored.count("behind-1"));
}

// Unfinished batches below the index are finished at start; torn ones are cut back first, empty
// ones deleted, and files that are not batches at all set aside rather than sent for ever.
TEST_P(StorageTest, LeftoverBatchesAreRepairedFinishedOrSetAside) {
  storeIndex(5);
  leave("0-pelora-events", batchOf({"a"}) + ",{\"type\":\"tr");
  leave("1-pelora-events", batchOf({"b"}) + R"(],"sentAt":"2024)");
  leave("2-pelora-events", R"({ "batch": [],"sentAt":"2024-05-01T08:09:10.123Z","writeKey":"k"})");
  leave("3-pelora-events", "GIF89a");
  leave("4-pelora-events.temp", "kept as it is, whatever it holds");

  auto s = storage();
  EXPECT_EQ(listed(*s),
            (Names{"0-pelora-events.temp", "1-pelora-events.temp", "4-pelora-events.temp"}));
  EXPECT_EQ(eventsIn(file("0-pelora-events.temp")), JSON(JSON::List{JSON::with(event("a"))}));
  EXPECT_EQ(eventsIn(file("1-pelora-events.temp")), JSON(JSON::List{JSON::with(event("b"))}));
  EXPECT_FALSE(exists(file("2-pelora-events")));
  EXPECT_EQ(readFile(file("3-pelora-events.unreadable")), "GIF89a");
  EXPECT_EQ(readFile(file("4-pelora-events.temp")), "kept as it is, whatever it holds");
}

TEST_P(StorageTest, EarlierUnfinishedBatchesAreFinishedAtStart) {
  storeIndex(3);
  leave("0-pelora-events", kHeader);
  leave("1-pelora-events", closedBatchOf("a"));
  leave("2-pelora-events", batchOf({"b"}));

  auto s = storage();
  EXPECT_EQ(listed(*s), (Names{"1-pelora-events.temp", "2-pelora-events.temp"}));
  EXPECT_FALSE(exists(file("0-pelora-events")));
  EXPECT_EQ(readFile(file("1-pelora-events.temp")), closedBatchOf("a"));
  EXPECT_EQ(eventsIn(file("2-pelora-events.temp")), JSON(JSON::List{JSON::with(event("b"))}));
  s->write(Key::events, event("c"));
  EXPECT_TRUE(exists(file("3-pelora-events")));
}

TEST_P(StorageTest, TempNameTakenAtFinishGetsAnotherName) {
  auto s = storage();
  s->write(Key::events, event("a"));
  writeOut();
  writeFile(file("0-pelora-events.temp"), "someone else's");
  EXPECT_EQ(listed(*s), (Names{"0-pelora-events.1.temp", "0-pelora-events.temp"}));
  EXPECT_EQ(readFile(file("0-pelora-events.temp")), "someone else's");
}

TEST_P(StorageTest, RenameFailureIsPrintedAndLogged) {
  auto s = storage();
  s->write(Key::events, event("a"));
  writeOut();
  fs::remove(file("0-pelora-events"));  // gone while the batch is open
  Files files;
  const std::string output = printedByDebugLogs([&] { files = s->finishAndList(); });
  EXPECT_TRUE(files.empty());
  const std::string message = "Unable to rename to temp: " + file("0-pelora-events").string() +
                              ", Error: No such file or directory";
  EXPECT_NE(output.find(message + "\n"), std::string::npos);  // the console line
  EXPECT_NE(output.find("finish(file:):"), std::string::npos);
  EXPECT_EQ(storedIndex(), JSON(1));
}

// Batches hold the user's id and event properties: no other user may read them, whatever the
// umask, and a directory an older version left open is closed up.
TEST_P(StorageTest, EverythingOnDiskIsPrivate) {
  leave("0-pelora-events", batchOf({"old"}), "older");
  for (const fs::path& dir : {paths_.documents, paths_.documents / "pelora", eventsDir("older")})
    fs::permissions(dir, static_cast<fs::perms>(0755));
  storage("older")->write(Key::events, event("a"));
  EXPECT_EQ(modeOf(paths_.documents), 0755u) << "the user's, not ours";
  EXPECT_EQ(modeOf(paths_.documents / "pelora"), 0700u);
  EXPECT_EQ(modeOf(eventsDir("older")), 0700u);

  const mode_t saved = ::umask(002);
  paths_ = {root_.path() / "new" / "Documents", root_.path() / "new" / "config"};
  auto s = storage();
  s->write(Key::userId, std::string("user-1"));
  s->write(Key::events, event("a"));
  EXPECT_EQ(listed(*s), Names{"0-pelora-events.temp"});
  s->write(Key::events, event("b"));
  const UploadClaim claim = s->claimUploads();
  writeOut();
  ::umask(saved);

  EXPECT_TRUE(claim);
  const fs::path suiteDir = paths_.preferences / "pelora";
  for (const fs::path& dir : {root_.path() / "new", paths_.documents, paths_.documents / "pelora",
                              eventsDir(), paths_.preferences, suiteDir})
    EXPECT_EQ(modeOf(dir), 0700u) << dir;
  const fs::path suiteFile = suite()->file();
  for (const fs::path& made :
       {file("0-pelora-events.temp"), file("1-pelora-events"), file(".uploads.lock"), suiteFile,
        suiteDir / ("." + suiteFile.filename().string() + ".lock")})
    EXPECT_EQ(modeOf(made), 0600u) << made;
}

// Links planted under batch names lead nowhere: the next batch name (a dangling link) is not
// written through, start-up recovery leaves the target of an unfinished one alone, and a finished
// one is never listed for upload. Events go into batches of our own; the unfinished names are set
// aside, so that their numbers hold nothing back.
TEST_P(StorageTest, LinksAmongTheBatchesAreNeverFollowed) {
  const fs::path outside = root_.path() / "outside";
  fs::create_directories(outside);
  const std::string batchLike = batchOf({"x"}) + ",{\"ty";
  writeFile(outside / "batch-like", batchLike);
  writeFile(outside / "private", closedBatchOf("private"));
  storeIndex(2);
  fs::create_directories(eventsDir());
  fs::create_symlink(outside / "batch-like", file("0-pelora-events"));
  fs::create_symlink(outside / "private", file("1-pelora-events.temp"));
  fs::create_symlink(outside / "created", file("2-pelora-events"));

  auto s = storage();
  s->write(Key::events, event("a"));
  const Names names = listed(*s);

  EXPECT_EQ(readFile(outside / "batch-like"), batchLike);
  EXPECT_EQ(readFile(outside / "private"), closedBatchOf("private"));
  EXPECT_FALSE(exists(outside / "created"));
  ASSERT_EQ(names, Names{"3-pelora-events.temp"});
  EXPECT_EQ(eventsIn(file(names[0])), JSON(JSON::List{JSON::with(event("a"))}));
  for (const char* left :
       {"0-pelora-events.unreadable", "1-pelora-events.temp", "2-pelora-events.unreadable"})
    EXPECT_TRUE(fs::is_symlink(file(left))) << left;

  // Under the highest number there is, a link would have held the index there for good.
  fs::create_directories(eventsDir("last"));
  fs::create_symlink(outside / "last", file("18446744073709551615-pelora-events", "last"));
  auto last = storage("last");
  last->write(Key::events, event("b"));
  EXPECT_FALSE(exists(outside / "last"));
  const Files files = last->finishAndList();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(eventsIn(files[0]), JSON(JSON::List{JSON::with(event("b"))}));
}

// Threads recording at once share syncs: across roll-overs every event lands once, in a whole
// batch, each thread's events in the order it wrote them.
TEST_P(StorageTest, ConcurrentWritersLoseNothingAndKeepTheirOrder) {
  auto s = storage();
  constexpr int kThreads = 4, kEach = 120;
  const std::string padding(4'000, 'p');  // about 120 events to a batch: several roll-overs
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        TrackEvent e = event(std::to_string(t) + "-" + std::to_string(i));
        e.properties = JSON(JSON::Map{{"thread", JSON(t)}, {"i", JSON(i)}, {"pad", JSON(padding)}});
        s->write(Key::events, e);
        if (i % 50 == 49) (void)s->finishAndList();
      }
    });
  }
  for (auto& thread : threads) thread.join();

  Files files = s->finishAndList();
  EXPECT_GE(files.size(), 3u);
  // In the order they were written: by batch number (the listing is lexical, "10-" before "2-").
  std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
    return std::stoull(a.filename().string()) < std::stoull(b.filename().string());
  });
  std::vector<int> next(kThreads, 0);
  for (const auto& finished : files) {
    JSON batch;
    ASSERT_NO_THROW(batch = eventsIn(finished)) << finished;
    for (const auto& e : *batch.listPointer()) {
      const auto t = *e["properties"]->value<std::int64_t>("thread");
      EXPECT_EQ(*e["properties"]->value<std::int64_t>("i"), next[static_cast<std::size_t>(t)]++);
    }
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kEach));
}

// Two storages on one write key (a released client and its successor, or two processes of one
// application) record and finish at once: no batch is shared, corrupted or lost, and neither
// undoes the other's suite values.
TEST_P(StorageTest, ConcurrentStoragesOnOneKeyKeepEveryBatchWhole) {
  std::vector<std::shared_ptr<Storage>> storages = {storage(), storage()};
  constexpr int kEach = 150;
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      Storage& s = *storages[static_cast<std::size_t>(w)];
      for (int i = 0; i < kEach; ++i) {
        s.write(Key::events, event(std::to_string(w) + "-" + std::to_string(i)));
        if (i % 20 == 19) (void)s.finishAndList();
      }
      s.write(w == 0 ? Key::userId : Key::anonymousId, std::string("value-") + std::to_string(w));
    });
  }
  for (auto& thread : threads) thread.join();
  for (auto& s : storages) (void)s->finishAndList();

  std::multiset<std::string> seen;
  for (const auto& entry : fs::directory_iterator(eventsDir())) {
    const std::string name = entry.path().filename().string();
    ASSERT_TRUE(name.ends_with(".temp")) << name << " left unfinished";
    JSON batch;
    ASSERT_NO_THROW(batch = JSON::parse(readFile(entry.path()))) << name;
    const JSON events = batch["batch"].value_or(JSON::List{});
    for (const auto& e : *events.listPointer()) seen.insert(*e["messageId"]->stringPointer());
  }
  EXPECT_EQ(seen.size(), std::size_t{2 * kEach});
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size());
  EXPECT_EQ(storage()->read<std::string>(Key::userId), "value-0");
  EXPECT_EQ(storage()->read<std::string>(Key::anonymousId), "value-1");
}

}  // namespace
}  // namespace pelora
