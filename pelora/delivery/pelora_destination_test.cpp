#include "pelora/delivery/pelora_destination.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "pelora/client/analytics.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/delivery/http_client.hpp"
#include "pelora/log/pelora_log.hpp"
#include "pelora/state/storage.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/temp_directory.hpp"

#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using test::eventually;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* batchPath = "/tracking-controller/b";

class PeloraDestinationTest : public ::testing::Test {
 protected:
  // A client without the built-in destination, so each test owns the one it adds.
  std::shared_ptr<PeloraAnalytics> makeClient(std::int64_t flushAt = 100,
                                              double flushInterval = 3600) {
    configuration = std::make_shared<Configuration>("dest-key", std::nullopt, false);
    configuration->paths(platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
    configuration->flushAt(flushAt).flushInterval(flushInterval).autoAddPeloraDestination(false);
    configuration->connectTo({server.connectTo(productionTrackingHost)})
        .caBundle(server.certificates().caFile);
    client = PeloraAnalytics::create(configuration);
    destination = std::make_shared<PeloraDestination>();
    client->add(destination);
    return client;
  }

  void TearDown() override { PeloraAnalytics::setDebugLogsEnabled(false); }

  // Finished batch files on disk, in name order.
  std::vector<fs::path> finishedFiles() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(client->storage()->eventsDirectory())) {
      if (entry.path().extension() == ".temp") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
  }
  bool uploadsSettled() const { return destination->pendingUploads() == 0; }

  test::TempDirectory dir;
  test::TestHttpsServer server;
  std::shared_ptr<Configuration> configuration;
  std::shared_ptr<PeloraAnalytics> client;
  std::shared_ptr<PeloraDestination> destination;
};

TEST_F(PeloraDestinationTest, FlushAtOneMakesOneFilePerEvent) {
  makeClient(1);
  for (int i = 0; i < 3; ++i) {
    client->trackBash("E" + std::to_string(i));
    ASSERT_TRUE(server.waitForRequests(static_cast<std::size_t>(i) + 1));
    EXPECT_EQ(destination->eventCount(), 0);
    ASSERT_TRUE(eventually([&] { return uploadsSettled(); }));
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& request : requests) {
    EXPECT_EQ(JSON::parse(request.body)["batch"]->arrayValue()->size(), 1u) << request.body;
  }
}

// The flush that flushAt asks for runs elsewhere: a recording thread never waits for a batch to
// be finished or an upload to start, however long that takes.
TEST_F(PeloraDestinationTest, FlushAtNeverRunsTheFlushOnTheRecordingThread) {
  makeClient(1);
  std::mutex mutex;
  std::condition_variable changed;
  bool flushing = false;
  bool release = false;
  destination->setUploadGate([&] {
    std::unique_lock lock(mutex);
    flushing = true;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
    return true;
  });
  test::Counter returned;
  std::thread recorder([&] {
    client->trackBash("E");
    returned.add();
  });
  const bool recorderReturned = returned.waitFor(1, 5s);
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 5s, [&] { return flushing; })) << "no flush began";
    release = true;
    changed.notify_all();
  }
  recorder.join();
  EXPECT_TRUE(recorderReturned) << "trackBash waited for the flush";
  ASSERT_TRUE(server.waitForRequests(1));
}

// While uploads fail, flushes send the oldest batch alone and keep appending to the open one:
// a failing service does not turn every flushAt events into a file of their own.
TEST_F(PeloraDestinationTest, WhileUploadsFailFlushesDoNotCutSmallFiles) {
  makeClient(1);
  server.setDefaultResponse({.status = 500});
  for (std::size_t i = 0; i < 5; ++i) {
    client->trackBash("E" + std::to_string(i));
    // Each flush sends one batch (the oldest) while they fail: wait for this event's, not merely
    // for a quiet moment, which may come before its flush has even begun.
    ASSERT_TRUE(eventually([&] { return server.requests().size() > i && uploadsSettled(); }));
  }
  EXPECT_EQ(finishedFiles().size(), 1u);
  for (const auto& request : server.requests()) {
    EXPECT_EQ(JSON::parse(request.body)["batch"]->arrayValue()->size(), 1u);  // the first batch
  }
  server.setDefaultResponse({});
  // Once the oldest is delivered, the same flush finishes the open batch and sends it too.
  destination->flush();
  ASSERT_TRUE(eventually([&] { return uploadsSettled() && finishedFiles().empty(); }));
  std::size_t delivered = 0;
  for (const auto& request : server.requests()) {
    delivered += JSON::parse(request.body)["batch"]->arrayValue()->size();
  }
  EXPECT_GE(delivered, 5u);
}

// Keeps every log line the client passes on, from any thread.
class LineTarget : public LogTarget {
 public:
  void parseLog(const LogMessage& message) override {
    std::lock_guard lock(mutex_);
    lines_.push_back(message.function + " | " + message.message);
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(PeloraDestinationTest, LogLinesTellWhatEachFlushDid) {
  makeClient();
  auto target = std::make_shared<LineTarget>();
  client->add(std::make_shared<PeloraLog>(LogFilterKind::debug, PluginType::before,
                                          PeloraLog::TargetTable{}));
  client->add(target, LoggingType::log);
  PeloraAnalytics::setDebugLogsEnabled(true);
  server.enqueue(batchPath, {.status = 200, .delay = 1000ms});
  client->trackBash("Logged");
  destination->flush();
  ASSERT_TRUE(server.waitForRequests(1));
  ASSERT_EQ(finishedFiles().size(), 1u);  // kept until the slow answer arrives
  const std::string first = finishedFiles()[0].filename().string();
  destination->flush();
  // The completion deletes the file before it logs "Processed:", so wait for the line itself.
  const std::string processed = "flush() | Processed: " + first;
  ASSERT_TRUE(eventually([&] {
    auto lines = target->lines();
    return std::find(lines.begin(), lines.end(), processed) != lines.end();
  }));
  PeloraAnalytics::setDebugLogsEnabled(false);

  std::vector<std::string> expected{
      "flush() | Uploads in-progress: 0",
      "flush() | Processing Batch:\n" + first,
      "flush() | Uploads in-progress: 1",
      "flush() | Skipping processing; Uploads in progress.",
      "cleanupUploads() | Cleaned up 1 non-running uploads.",
      "flush() | Processed: " + first,
  };
  auto lines = target->lines();
  auto at = lines.begin();
  for (const auto& line : expected) {
    at = std::find(at, lines.end(), line);
    ASSERT_NE(at, lines.end()) << "missing, or out of order: " << line;
  }
}

TEST_F(PeloraDestinationTest, TimerFlushesOnItsOwn) {
  makeClient(100, 0.05);
  client->trackBash("Timed");
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_TRUE(eventually([&] { return finishedFiles().empty(); }));
}

TEST_F(PeloraDestinationTest, SettingsNeedBothKeyAndHostToReplaceTheHTTPClient) {
  makeClient();
  // Adding it handed over the client's settings, which carry both.
  EXPECT_EQ(destination->apiKey(), "dest-key");
  EXPECT_EQ(destination->apiHost(), std::string(productionTrackingHost));
  auto first = destination->httpClient();
  ASSERT_TRUE(first);

  Settings keyOnly;
  keyOnly.integrations = JSON(Dictionary{{"Pelora.io", Dictionary{{"apiKey", "k2"}}}});
  destination->update(keyOnly, UpdateType::refresh);
  EXPECT_EQ(destination->httpClient(), first);
  EXPECT_EQ(destination->apiKey(), "k2");
  EXPECT_EQ(destination->apiHost(), std::nullopt);  // a missing entry clears the old one

  Settings wrongTypes;
  wrongTypes.integrations =
      JSON(Dictionary{{"Pelora.io", Dictionary{{"apiKey", 5}, {"apiHost", "h"}}}});
  destination->update(wrongTypes, UpdateType::initial);
  EXPECT_EQ(destination->httpClient(), first);
  EXPECT_EQ(destination->apiKey(), std::nullopt);

  destination->update(Settings("k3", "collector.test"), UpdateType::refresh);
  auto replaced = destination->httpClient();
  ASSERT_NE(replaced, first);
  EXPECT_EQ(replaced->apiKey(), "k3");
  EXPECT_EQ(replaced->apiHost(), "collector.test");

  // A host that cannot form an upload URL fails each upload at once, inside the flush; the file
  // stays.
  destination->update(Settings("k4", "bad host"), UpdateType::refresh);
  client->trackBash("Kept");
  destination->flush();
  EXPECT_EQ(destination->pendingUploads(), 0u);
  EXPECT_EQ(finishedFiles().size(), 1u);

  // Without a client there is nothing to build an HTTP client for, or to flush.
  PeloraDestination loose;
  loose.update(Settings("k", "h"), UpdateType::initial);
  EXPECT_EQ(loose.httpClient(), nullptr);
  loose.flush();
}

}  // namespace
}  // namespace pelora
