// The disk bound and the storage's answers to refused batches: splitting and setting aside.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pelora/core/json.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/state/batch_format.hpp"
#include "pelora/state/storage.hpp"
#include "tests/support/temp_directory.hpp"

namespace pelora {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Files = std::vector<fs::path>;
using Key = Storage::Key;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TrackEvent event(int n) {
  TrackEvent e("E", JSON(JSON::Map{{"n", JSON(n)}, {"pad", JSON(std::string(200, 'x'))}}));
  e.messageId = "message-" + std::to_string(n);
  e.timestamp = "2024-05-01T08:09:10.123Z";
  return e;
}

// The "n" of every event of a batch, in order.
std::vector<std::int64_t> numbersIn(const JSON& batch) {
  std::vector<std::int64_t> numbers;
  const JSON events = batch["batch"].value_or(JSON());
  for (std::int64_t i = 0; auto e = events[i]; ++i)
    numbers.push_back(*(*e)["properties"]->operator[]("n")->intValue());
  return numbers;
}

// The "n" of every event in the batch files of `directory`, whatever their state.
std::vector<std::int64_t> storedNumbers(const fs::path& directory) {
  std::vector<std::int64_t> numbers;
  for (const auto& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with('.')) continue;
    auto text = readFile(entry.path());
    if (!name.ends_with(".temp") && !name.ends_with(".refused")) continue;
    for (const auto n : numbersIn(JSON::parse(text))) numbers.push_back(n);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::uint64_t bytesStored(const fs::path& directory) {
  std::uint64_t total = 0;
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (!entry.path().filename().string().starts_with('.')) total += entry.file_size();
  }
  return total;
}

// Counts the lines printed that hold `text`, for the life of the counter.
class PrintedLines {
 public:
  explicit PrintedLines(std::string text) : text_(std::move(text)) {
    platform::setLogHandler([this](LogLevel, std::string_view line) {
      if (line.find(text_) != std::string_view::npos) ++count_;
    });
  }
  ~PrintedLines() { platform::setLogHandler(nullptr); }
  int count() const { return count_; }

 private:
  std::string text_;
  std::atomic<int> count_{0};
};

class DiskBound : public ::testing::Test {
 protected:
  std::shared_ptr<Storage> storage() { return Storage::create(nullptr, "bound-key", paths_); }
  // Writes events numbered [from, to), finishing a batch every `perBatch`.
  void record(Storage& s, int from, int to, int perBatch = 10) {
    for (int n = from; n < to; ++n) {
      s.write(Key::events, event(n));
      if ((n + 1) % perBatch == 0) (void)s.finishAndList();
    }
  }
  fs::path directory() { return storage()->eventsDirectory(); }

  test::TempDirectory root_{"pelora-bound"};
  platform::Paths paths_{root_.path() / "Documents", root_.path() / "config"};
};

TEST_F(DiskBound, DropsTheOldestBatchesCountsEveryEventAndSaysSoOnce) {
  constexpr std::uint64_t kBound = 64 * 1024;
  PrintedLines said("stored events pass 65536 bytes;");
  auto s = storage();
  s->setLimits(kBound, 0s);
  record(*s, 0, 2000);
  (void)s->finishAndList();

  EXPECT_LE(bytesStored(directory()), kBound);
  const auto kept = storedNumbers(directory());
  ASSERT_FALSE(kept.empty());
  // Nothing is lost unaccounted for, and what is kept is the newest, in one unbroken run.
  EXPECT_EQ(kept.size() + s->droppedEvents(), 2000u);
  EXPECT_EQ(kept.back(), 1999);
  EXPECT_EQ(kept.front(), static_cast<std::int64_t>(s->droppedEvents()));
  EXPECT_EQ(said.count(), 1);  // one episode: no batch was delivered in between

  // A delivered batch ends the episode: the next drop is reported again.
  s->remove(s->finishAndList().front());
  record(*s, 2000, 2600);
  EXPECT_EQ(said.count(), 2);
}

TEST_F(DiskBound, NeverDeletesABatchBeingSentOrWhileAnotherUploaderMayBeSendingIt) {
  auto s = storage();
  record(*s, 0, 10);
  const fs::path oldest = s->finishAndList().front();
  s->setLimits(16 * 1024, 0s);
  s->markSending(oldest, true);
  record(*s, 10, 400);
  EXPECT_TRUE(fs::exists(oldest));
  EXPECT_GT(s->droppedEvents(), 0u);
  s->markSending(oldest, false);

  // Another process's uploader holds the claim and may be sending any batch: nothing goes.
  auto other = storage();
  auto claim = other->claimUploads();
  ASSERT_TRUE(claim);
  const auto dropped = s->droppedEvents();
  record(*s, 400, 800);
  EXPECT_EQ(s->droppedEvents(), dropped);
  claim.release();
  record(*s, 800, 900);
  EXPECT_GT(s->droppedEvents(), dropped);
  EXPECT_LE(bytesStored(directory()), 16u * 1024);
}

TEST_F(DiskBound, BatchesDeliveredSinceTheLastCountMakeRoomAndNothingWithinTheBoundGoes) {
  constexpr std::uint64_t kBound = 64 * 1024;
  auto s = storage();
  s->setLimits(kBound, 0s);
  int n = 0;
  for (; bytesStored(directory()) < 60 * 1024; n += 10) record(*s, n, n + 10);
  ASSERT_EQ(s->droppedEvents(), 0u);
  s->setLimits(kBound, 0s);  // counted afresh at the next event
  record(*s, n, n + 1);
  ++n;
  // Delivered out of order, as parallel uploads finish: the newest batches go, the oldest stay.
  auto files = s->finishAndList();
  while (bytesStored(directory()) > 34 * 1024) {
    s->remove(files.back());
    files.pop_back();
  }
  // What the writer counted before the deliveries is past the bound now; the disk is not.
  record(*s, n, n + 15);
  EXPECT_EQ(s->droppedEvents(), 0u);
  EXPECT_LE(bytesStored(directory()), kBound);
}

TEST_F(DiskBound, SeveralWritersOnOneDirectoryStayWithinTheBoundAndLoseNothingUncounted) {
  constexpr std::uint64_t kBound = 48 * 1024;
  auto a = storage();
  auto b = storage();
  a->setLimits(kBound, 0s);
  b->setLimits(kBound, 0s);
  std::thread other([&] { record(*b, 10'000, 11'000, 7); });
  record(*a, 0, 1000, 13);
  other.join();
  (void)a->finishAndList();
  (void)b->finishAndList();
  // Each writer counts what it wrote since it last looked: the other's share may pass briefly.
  EXPECT_LE(bytesStored(directory()), kBound + kBound / 8);
  EXPECT_EQ(storedNumbers(directory()).size() + a->droppedEvents() + b->droppedEvents(), 2000u);
}

TEST_F(DiskBound, BatchesOlderThanTheAgeLimitAreDropped) {
  auto s = storage();
  record(*s, 0, 20);
  auto files = s->finishAndList();
  ASSERT_EQ(files.size(), 2u);
  const timespec twoHoursAgo{::time(nullptr) - 7200, 0};
  const timespec times[2] = {twoHoursAgo, twoHoursAgo};
  ASSERT_EQ(::utimensat(AT_FDCWD, files[0].c_str(), times, 0), 0);
  s->setLimits(0, 3600s);
  EXPECT_EQ(s->finishAndList().size(), 1u);
  EXPECT_EQ(s->droppedEvents(), 10u);
}

TEST_F(DiskBound, ABatchSplitsIntoTwoValidHalvesThatSortWhereItWas) {
  auto s = storage();
  record(*s, 0, 5, 5);
  record(*s, 5, 6, 1);
  auto files = s->finishAndList();
  ASSERT_EQ(files.size(), 2u);
  const std::string original = readFile(files[0]);

  const auto halves = s->splitBatch(files[0]);
  ASSERT_TRUE(halves);
  EXPECT_FALSE(fs::exists(files[0]));
  auto listed = s->finishAndList();
  ASSERT_EQ(listed, (Files{halves->first, halves->second, files[1]}));
  const JSON whole = JSON::parse(original);
  std::vector<std::int64_t> numbers;
  for (const auto& half : {halves->first, halves->second}) {
    const JSON batch = JSON::parse(readFile(half));  // each a batch of its own
    EXPECT_EQ(batch["sentAt"], whole["sentAt"]);
    EXPECT_EQ(batch["writeKey"], whole["writeKey"]);
    for (const auto n : numbersIn(batch)) numbers.push_back(n);
  }
  EXPECT_EQ(numbers, (std::vector<std::int64_t>{0, 1, 2, 3, 4}));

  // Down to one event, which cannot be split.
  auto quarter = s->splitBatch(halves->first);
  ASSERT_TRUE(quarter);
  EXPECT_FALSE(s->splitBatch(quarter->first));
  EXPECT_TRUE(fs::exists(quarter->first));
}

TEST_F(DiskBound, ARefusedBatchIsKeptAsideNeverListedAndFallsToTheBound) {
  auto s = storage();
  record(*s, 0, 10);
  const fs::path batch = s->finishAndList().front();
  ASSERT_TRUE(s->setAsideRefused(batch));
  EXPECT_TRUE(s->finishAndList().empty());
  fs::path refused = batch;
  refused.replace_extension(detail::kRefusedExtension);
  ASSERT_TRUE(fs::exists(refused));

  s->setLimits(8 * 1024, 0s);
  record(*s, 10, 100);
  EXPECT_FALSE(fs::exists(refused));
  EXPECT_GE(s->droppedEvents(), 10u);
}

}  // namespace
}  // namespace pelora
