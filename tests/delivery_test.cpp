// Delivery end to end: a client records events and the local collector (in-process, over verified
// TLS under the production host name) counts what arrives. Faults on the way (error answers, an
// unreachable service, several writers on one directory) must lose nothing and send nothing twice.
// Hosts killed mid-recording are the crash trials' business (tests/reliability).
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
#include <vector>

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

  // Each failing flush keeps every file; while the service fails, a flush tries only the oldest.
  failing->failNext(500, 1000);
  recordAndFlush();
  EXPECT_EQ(filesWaiting(*analytics), 1u);
  failing->failNext(429, 1000);
  recordAndFlush();
  EXPECT_EQ(filesWaiting(*analytics), 2u);
  EXPECT_EQ(failing->counts().failed, 2u);
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

// A "stg" (or "dev") flavor sends identity-tracking events to that environment's tracking host,
// while batches follow the settings' host, which the settings check sets to production.
TEST(Delivery, AFlavorRoutesIdentityEventsWhileBatchesGoToTheSettingsHost) {
  TempDirectory data;
  Collector production;
  Collector staging;
  auto configuration = std::make_shared<Configuration>("flavor-key", "stg", false);
  configuration->flushAt(1'000'000)
      .flushInterval(3600)
      .paths({data.path() / "Documents", data.path() / "config"})
      .connectTo(
          {production.connectTo(productionTrackingHost), staging.connectTo(stagingTrackingHost)})
      .caBundle(production.certificates().caFile);
  auto analytics = PeloraAnalytics::create(configuration);
  analytics->trackBash("Routed");
  analytics->trackEvent(Dictionary{{"email", std::string("f@example.com")}}, "login", Dictionary{});
  ASSERT_TRUE(analytics->flush(std::chrono::seconds(10)));
  EXPECT_EQ(production.counts().batches, 1u);
  EXPECT_EQ(production.counts().trackingEvents, 0u);
  EXPECT_EQ(staging.counts().batches, 0u);
  EXPECT_EQ(staging.counts().trackingEvents, 1u);
}

// Starts the crash host on `data` for `events` events under run `run`; its output goes to `log`.
pid_t startHost(const std::filesystem::path& data, const Collector& collector,
                const std::string& run, int events, const std::filesystem::path& log) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const std::vector<std::string> arguments = {PELORA_CRASH_HOST,
                                              "--data",
                                              data.string(),
                                              "--run",
                                              run,
                                              "--events",
                                              std::to_string(events),
                                              "--connect-to",
                                              collector.connectTo(productionTrackingHost),
                                              "--ca-file",
                                              collector.certificates().caFile};
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, PELORA_CRASH_HOST, &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Two processes of one application (a command-line tool run twice at once) record into one
// directory, flush and exit: every event arrives once and the service refuses nothing.
TEST(Delivery, TwoProcessesOnOneDirectorySendEveryEventOnce) {
  TempDirectory data;
  Collector collector;
  constexpr int events = 150;
  std::vector<pid_t> hosts;
  for (const char* run : {"a", "b"}) {
    hosts.push_back(
        startHost(data.path(), collector, run, events, data.path() / (std::string(run) + ".log")));
    ASSERT_GT(hosts.back(), 0);
  }
  for (const pid_t pid : hosts) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }
  std::map<std::string, int> arrivals;
  for (const auto& event : collector.events()) {
    ++arrivals[event.properties->value<std::string>("id").value_or("?")];
  }
  for (const char* run : {"a", "b"}) {
    for (int i = 0; i < events; ++i) {
      EXPECT_EQ(arrivals[std::string(run) + "-" + std::to_string(i)], 1) << run << "-" << i;
    }
  }
  EXPECT_EQ(arrivals.size(), static_cast<std::size_t>(2 * events));
  EXPECT_EQ(collector.counts().rejected, 0u);
}

}  // namespace
}  // namespace pelora
