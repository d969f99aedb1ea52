// Delivery end to end: a client records events and the local collector (in-process, over verified
// TLS under the production host name) counts what arrives. Faults on the way (error answers, an
// unreachable service, a host killed mid-recording) must lose nothing and send nothing twice.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"

namespace pelora {
namespace {

using collector::Collector;
using test::eventually;
using test::TempDirectory;

// The client's configuration for `data`, sending the production host to `collector`; only
// explicit flushes upload.
std::shared_ptr<Configuration> configurationFor(const std::filesystem::path& data,
                                                const Collector& collector,
                                                const std::string& writeKey = "delivery-key") {
  auto configuration = std::make_shared<Configuration>(writeKey, std::nullopt, false);
  configuration->flushAt(1'000'000)
      .flushInterval(3600)
      .paths({data / "Documents", data / "config"})
      .connectTo({collector.connectTo(productionTrackingHost)})
      .caBundle(collector.certificates().caFile);
  return configuration;
}

// How many times each "seq" property arrived.
std::map<std::int64_t, int> sequenceCounts(const Collector& collector) {
  std::map<std::int64_t, int> counts;
  for (const auto& event : collector.events()) {
    ++counts[event.properties->value<std::int64_t>("seq").value_or(-1)];
  }
  return counts;
}

bool uploadsSettled(PeloraAnalytics& analytics) {
  return eventually([&] { return analytics.find<PeloraDestination>()->pendingUploads() == 0; });
}

std::size_t filesWaiting(PeloraAnalytics& analytics) {
  return analytics.pendingUploads().value_or(std::vector<std::filesystem::path>{}).size();
}

TEST(Delivery, FailedUploadsStayAndArriveOnceWhenTheCollectorRecovers) {
  TempDirectory data;
  auto failing = std::make_unique<Collector>();
  const int port = failing->port();
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), *failing));
  std::int64_t sequence = 0;
  auto recordAndFlush = [&] {
    for (int i = 0; i < 5; ++i) analytics->trackBash("Step", Dictionary{{"seq", sequence++}});
    analytics->flush();
    ASSERT_TRUE(uploadsSettled(*analytics));
  };

  // Each failing flush sends the older files again with the new one, and keeps them all.
  failing->failNext(500, 1000);
  recordAndFlush();
  EXPECT_EQ(filesWaiting(*analytics), 1u);
  failing->failNext(429, 1000);
  recordAndFlush();
  EXPECT_EQ(filesWaiting(*analytics), 2u);
  EXPECT_EQ(failing->counts().failed, 3u);
  EXPECT_EQ(failing->counts().distinctEvents, 0u);

  failing->stop();  // unreachable: connections are refused
  recordAndFlush();
  EXPECT_EQ(filesWaiting(*analytics), 3u);

  collector::CollectorOptions samePort;
  samePort.port = port;
  Collector recovered(samePort);
  recordAndFlush();
  EXPECT_FALSE(analytics->hasUnsentEvents());
  auto counts = sequenceCounts(recovered);
  ASSERT_EQ(counts.size(), 20u);
  for (std::int64_t i = 0; i < 20; ++i) EXPECT_EQ(counts[i], 1) << "seq " << i;
  EXPECT_EQ(recovered.counts().batches, 4u);
}

TEST(Delivery, FlushWhileUploadsRunSendsNothingAndLosesNothing) {
  TempDirectory data;
  Collector collector;
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
  collector.delayAnswers(std::chrono::seconds(1));
  for (std::int64_t i = 0; i < 3; ++i) analytics->trackBash("Step", Dictionary{{"seq", i}});
  analytics->flush();
  // The first upload is still running while more events are recorded and flushed: the second
  // flush finishes their file but sends nothing.
  for (std::int64_t i = 3; i < 6; ++i) analytics->trackBash("Step", Dictionary{{"seq", i}});
  auto destination = analytics->find<PeloraDestination>();
  EXPECT_EQ(destination->eventCount(), 3);
  analytics->flush();
  EXPECT_EQ(destination->eventCount(), 0);
  EXPECT_EQ(destination->pendingUploads(), 1u);  // only the slow upload
  EXPECT_EQ(filesWaiting(*analytics), 2u);
  ASSERT_TRUE(uploadsSettled(*analytics));
  EXPECT_EQ(collector.counts().batches, 1u);
  collector.delayAnswers(std::chrono::milliseconds(0));
  analytics->flush();
  ASSERT_TRUE(eventually([&] { return !analytics->hasUnsentEvents(); }));
  auto counts = sequenceCounts(collector);
  ASSERT_EQ(counts.size(), 6u);
  for (const auto& [seq, times] : counts) EXPECT_EQ(times, 1) << "seq " << seq;
}

// Every event flushes, from two threads at once, so listings, clean-ups and completions interleave
// in every order; each event must still arrive exactly once.
TEST(Delivery, StressFlushingEveryEventFromTwoThreadsSendsEachOnce) {
  TempDirectory data;
  Collector collector;
  auto configuration = configurationFor(data.path(), collector);
  configuration->flushAt(1);
  auto analytics = PeloraAnalytics::create(configuration);
  constexpr std::int64_t perThread = 150;
  auto record = [&](std::int64_t first) {
    for (std::int64_t i = first; i < first + perThread; ++i) {
      analytics->trackBash("Step", Dictionary{{"seq", i}});
    }
  };
  std::thread other(record, perThread);
  record(0);
  other.join();
  ASSERT_TRUE(eventually(
      [&] {
        analytics->flush();
        return !analytics->hasUnsentEvents();
      },
      std::chrono::seconds(60)));
  auto counts = sequenceCounts(collector);
  EXPECT_EQ(counts.size(), static_cast<std::size_t>(2 * perThread));
  for (const auto& [seq, times] : counts) EXPECT_EQ(times, 1) << "seq " << seq;
}

// A host that releases its client and creates another on the same write key: the first client
// lives on (its plugins keep it), so both record, finish and upload in one directory at once.
TEST(Delivery, ConcurrentClientsOnOneWriteKeySendEveryEventOnce) {
  TempDirectory data;
  Collector collector;
  auto configuration = configurationFor(data.path(), collector);
  configuration->flushAt(7);
  std::vector<std::shared_ptr<PeloraAnalytics>> clients = {PeloraAnalytics::create(configuration),
                                                           PeloraAnalytics::create(configuration)};
  constexpr std::int64_t perClient = 200;
  std::vector<std::thread> threads;
  for (std::int64_t c = 0; c < 2; ++c) {
    threads.emplace_back([&, c] {
      for (std::int64_t i = c * perClient; i < (c + 1) * perClient; ++i) {
        clients[static_cast<std::size_t>(c)]->trackBash("Step", Dictionary{{"seq", i}});
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(eventually(
      [&] {
        for (auto& client : clients) client->flush();
        return !clients[0]->hasUnsentEvents() && !clients[1]->hasUnsentEvents();
      },
      std::chrono::seconds(60)));
  auto counts = sequenceCounts(collector);
  EXPECT_EQ(counts.size(), static_cast<std::size_t>(2 * perClient));
  for (const auto& [seq, times] : counts) EXPECT_EQ(times, 1) << "seq " << seq;
  EXPECT_EQ(collector.counts().rejected, 0u);
}

TEST(Delivery, MonitorEventsArriveAtOnceAndMalformedBodiesAreRejected) {
  TempDirectory data;
  Collector collector;
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector));
  analytics->trackEvent(Dictionary{{"email", std::string("ada@example.com")}}, "login",
                        Dictionary{{"method", std::string("password")}});
  ASSERT_TRUE(eventually([&] { return collector.counts().trackingEvents == 1; }));
  auto body = collector.trackingEvents().front();
  EXPECT_EQ(body["event_name"]->stringValue(), "login");
  EXPECT_EQ(body["workspace_id"]->stringValue(), "delivery-key");
  EXPECT_EQ(body["eventData"]->value<std::string>("platform"), "iOS");
  EXPECT_EQ(filesWaiting(*analytics), 0u);  // nothing stored for it

  // Batch files of the wrong shape are answered 400, and the client keeps them.
  auto documents = data.path() / "Documents" / "pelora" / "delivery-key";
  const std::map<std::string, std::string> malformed = {
      {"7-pelora-events.temp", "not json"},
      {"8-pelora-events.temp", R"({ "batch": [],"sentAt":"x","writeKey":"k"})"},
      {"9-pelora-events.temp", R"({ "batch": [{"event":"no type"}],"sentAt":"x","writeKey":"k"})"},
  };
  for (const auto& [name, text] : malformed) std::ofstream(documents / name) << text;
  analytics->flush();
  ASSERT_TRUE(uploadsSettled(*analytics));
  EXPECT_EQ(collector.counts().rejected, 3u);
  EXPECT_EQ(filesWaiting(*analytics), 3u);
}

// Starts the recording host on `data` and returns its pid and the read end of its output.
std::pair<pid_t, int> startRecordingHost(const std::filesystem::path& data) {
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) return {-1, -1};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  const std::string dataText = data.string();
  char* argv[] = {const_cast<char*>(PELORA_RECORDING_HOST), const_cast<char*>(dataText.c_str()),
                  const_cast<char*>("killed-key"), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, PELORA_RECORDING_HOST, &actions, nullptr, argv, environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(output[1]);
  return {pid, output[0]};
}

TEST(Delivery, EventsRecordedBeforeSigkillAreDeliveredAfterRestart) {
  TempDirectory data;
  auto [pid, output] = startRecordingHost(data.path());
  ASSERT_GT(pid, 0);
  // Past the first roll-over of a batch file (~1,100 events of this size), then killed mid-write.
  std::int64_t lastRecorded = -1;
  std::string pending;
  char buffer[4096];
  while (lastRecorded < 1500) {
    ssize_t n = ::read(output, buffer, sizeof buffer);
    ASSERT_GT(n, 0) << "the recording host stopped early";
    pending.append(buffer, static_cast<std::size_t>(n));
    for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) {
        lastRecorded = std::stoll(line);
      }
    }
  }
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::close(output);
  ASSERT_TRUE(WIFSIGNALED(status));

  Collector collector;
  auto analytics = PeloraAnalytics::create(configurationFor(data.path(), collector, "killed-key"));
  analytics->flush();
  ASSERT_TRUE(eventually([&] { return !analytics->hasUnsentEvents(); }, std::chrono::seconds(60)));
  auto counts = sequenceCounts(collector);
  for (std::int64_t i = 0; i <= lastRecorded; ++i) ASSERT_EQ(counts[i], 1) << "seq " << i;
  // One more may have reached the file before the kill, but nothing twice and nothing invented.
  EXPECT_LE(counts.size(), static_cast<std::size_t>(lastRecorded) + 2);
  EXPECT_EQ(collector.counts().events, collector.counts().distinctEvents);
}

}  // namespace
}  // namespace pelora
