// A full disk, for real: a small tmpfs (mounting needs root; the test is skipped otherwise). A
// client records until the disk is full, space is freed, and it records more. Events that found
// no room are lost, but every event that reached the disk must arrive, no batch may be corrupt,
// and recording must work again once there is room.
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

namespace fs = std::filesystem;

class SmallFileSystem {
 public:
  SmallFileSystem(const fs::path& where, const char* size) : path_(where) {
    fs::create_directories(path_);
    const std::string options = std::string("size=") + size;
    if (::mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
      error_ = std::strerror(errno);
    }
  }
  ~SmallFileSystem() {
    if (error_.empty()) ::umount2(path_.c_str(), MNT_DETACH);
  }
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;
  const std::string& error() const { return error_; }

 private:
  fs::path path_;
  std::string error_;
};

// The ids ("<phase>-<n>") of the events in every batch file under `documents`, finished or not.
std::multiset<std::string> storedIds(const fs::path& documents) {
  std::multiset<std::string> ids;
  constexpr std::string_view key = R"("id":")";
  for (const auto& entry : fs::recursive_directory_iterator(documents)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    for (auto at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
      const auto start = at + key.size();
      ids.insert(text.substr(start, text.find('"', start) - start));
    }
  }
  return ids;
}

// A 1 MiB tmpfs at `small`, inside a temporary directory on the ordinary disk.
class DiskFull : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a small tmpfs needs root";
    fileSystem_.emplace(small, "1m");
    if (!fileSystem_->error().empty())
      GTEST_SKIP() << "cannot mount a tmpfs: " << fileSystem_->error();
  }
  // A client of `key` that keeps its files under `data` and sends to `collector`, flushing only
  // when told.
  static std::shared_ptr<PeloraAnalytics> client(const std::string& key, const fs::path& data,
                                                 const collector::Collector& collector) {
    auto configuration = std::make_shared<Configuration>(key, std::nullopt, false);
    configuration->flushAt(1'000'000)
        .flushInterval(3600)
        .paths({data / "Documents", data / "config"})
        .connectTo({collector.connectTo(productionTrackingHost)})
        .caBundle(collector.certificates().caFile);
    return PeloraAnalytics::create(configuration);
  }

  // Flushes until nothing is left unsent (false after a minute).
  static bool deliverAll(PeloraAnalytics& analytics) {
    return test::eventually(
        [&] {
          analytics.flush();
          return !analytics.hasUnsentEvents();
        },
        std::chrono::seconds(60));
  }

  test::TempDirectory root;
  const fs::path small = root.path() / "small";

 private:
  std::optional<SmallFileSystem> fileSystem_;
};

TEST_F(DiskFull, StoredEventsArriveAndRecordingResumesOnceThereIsRoom) {
  // Room to free later.
  std::ofstream(small / "ballast", std::ios::binary) << std::string(200'000, 'b');
  collector::Collector collector;
  // The host hears of the loss: once when it starts, once with the count when it ends.
  std::mutex printedMutex;
  std::vector<std::string> printed;
  PeloraAnalytics::setLogHandler([&](LogLevel, std::string_view line) {
    std::lock_guard lock(printedMutex);
    if (line.find("stored") != std::string_view::npos) printed.emplace_back(line);
  });
  struct Restore {
    ~Restore() { PeloraAnalytics::setLogHandler(nullptr); }
  } restore;
  auto analytics = client("disk-full-key", small, collector);
  const std::string pad(2'000, 'p');
  for (int i = 0; i < 600; ++i) {  // 1.2 MB of events: the disk fills on the way
    analytics->trackBash("Full", Dictionary{{"id", "1-" + std::to_string(i)}, {"pad", pad}});
  }
  analytics->storage()->syncEvents();
  const auto storedWhileFull = storedIds(small / "Documents");
  ASSERT_GT(storedWhileFull.size(), 100u);
  ASSERT_LT(storedWhileFull.size(), 600u) << "the disk never filled";
  EXPECT_EQ(std::set<std::string>(storedWhileFull.begin(), storedWhileFull.end()).size(),
            storedWhileFull.size());

  fs::remove(small / "ballast");
  for (int i = 0; i < 50; ++i) {
    analytics->trackBash("Room again", Dictionary{{"id", "2-" + std::to_string(i)}, {"pad", pad}});
  }
  ASSERT_TRUE(deliverAll(*analytics));

  std::map<std::string, int> arrivals;
  for (const auto& event : collector.events())
    ++arrivals[event.properties->value<std::string>("id").value_or("?")];
  for (const auto& id : storedWhileFull) EXPECT_EQ(arrivals[id], 1) << id;
  for (int i = 0; i < 50; ++i) EXPECT_EQ(arrivals["2-" + std::to_string(i)], 1) << i;
  EXPECT_EQ(arrivals.size(), storedWhileFull.size() + 50);
  EXPECT_EQ(collector.counts().rejected, 0u);

  std::lock_guard lock(printedMutex);
  ASSERT_EQ(printed.size(), 2u) << ::testing::PrintToString(printed);
  EXPECT_NE(printed[0].find("cannot be stored"), std::string::npos) << printed[0];
  EXPECT_NE(printed[0].find("No space left on device"), std::string::npos) << printed[0];
  EXPECT_NE(printed[1].find(std::to_string(600 - storedWhileFull.size()) + " could not be stored"),
            std::string::npos)
      << printed[1];
}

// The collector's own record on a full disk: a batch it cannot write down is refused, not
// acknowledged, so the sender keeps it and sends it again once there is room; no half line stays.
TEST_F(DiskFull, TheCollectorAcknowledgesOnlyWhatItWroteDown) {
  std::ofstream(small / "ballast", std::ios::binary) << std::string(950'000, 'b');
  collector::CollectorOptions options;
  options.jsonLinesFile = (small / "received.jsonl").string();
  collector::Collector collector(options);
  auto analytics = client("full-collector-key", root.path(), collector);
  const std::string pad(2'000, 'p');
  for (int i = 0; i < 300; ++i) {  // two batches, each larger than the room left
    analytics->trackBash("Kept", Dictionary{{"id", std::to_string(i)}, {"pad", pad}});
  }
  analytics->flush();
  ASSERT_TRUE(test::eventually([&] { return collector.counts().unrecorded >= 2; },
                               std::chrono::seconds(30)));
  EXPECT_EQ(collector.counts().batches, 0u);
  EXPECT_EQ(fs::file_size(small / "received.jsonl"), 0u) << "half a line was left";

  fs::remove(small / "ballast");
  ASSERT_TRUE(deliverAll(*analytics));
  std::map<std::string, int> arrivals;
  std::ifstream lines(small / "received.jsonl");
  for (std::string line; std::getline(lines, line);) {
    const JSON batch = JSON::parse(line)["body"]->value<JSON>("batch").value_or(JSON::List{});
    for (const auto& event : *batch.listPointer())
      ++arrivals[event.value<std::string>("properties.id").value_or("?")];
  }
  ASSERT_EQ(arrivals.size(), 300u);
  for (const auto& [id, times] : arrivals) EXPECT_EQ(times, 1) << id;
}

}  // namespace
}  // namespace pelora
