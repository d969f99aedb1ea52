// What a caller of trackBash waits, call by call, on the real disk (diskBase()): rounds of 1,000
// calls back to back, each timed on the calling thread, reported as p50/p99/p99.9/max in
// microseconds. Conditions: a quiet disk or one that another process keeps busy writing 1 MiB and
// syncing it in a loop; no uploads, uploads every 20 events to a local collector, or uploads that
// the collector refuses (503). The baseline in the same run is the same client with
// syncEveryEvent, where each call waits for its own fdatasync.
//
// BM_TrackBashThroughput: events per second with 1 and 8 recording threads, default mode.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using pelora::bench::CollectorProcess;
using pelora::bench::diskBase;
using pelora::bench::ScratchDirectory;

enum class Disk { quiet, busy };
enum class Uploads { none, every20, failing };

// Another process writing 1 MiB and syncing it, over and over, in a directory next to the
// client's: the disk's queue is never empty while it runs.
class BusyDisk {
 public:
  explicit BusyDisk(const fs::path& directory) {
    const std::string path = (directory / "busy").string();
    std::vector<char> block(1 << 20, 'b');
    pid_ = ::fork();
    if (pid_ != 0) return;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (int i = 0; fd >= 0; ++i) {
      if (i % 64 == 0 && ::ftruncate(fd, 0) != 0) break;
      if (::pwrite(fd, block.data(), block.size(), static_cast<off_t>(i % 64) << 20) < 0) break;
      ::fdatasync(fd);
    }
    ::_exit(0);
  }
  ~BusyDisk() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  BusyDisk(const BusyDisk&) = delete;
  BusyDisk& operator=(const BusyDisk&) = delete;

 private:
  pid_t pid_ = -1;
};

void reportPercentiles(benchmark::State& state, std::vector<std::int64_t>& nanoseconds) {
  if (nanoseconds.empty()) return;
  std::sort(nanoseconds.begin(), nanoseconds.end());
  auto at = [&](double share) {
    const auto index =
        std::min(nanoseconds.size() - 1,
                 static_cast<std::size_t>(share * static_cast<double>(nanoseconds.size())));
    return static_cast<double>(nanoseconds[index]) / 1000.0;
  };
  state.counters["p50_us"] = at(0.50);
  state.counters["p99_us"] = at(0.99);
  state.counters["p99.9_us"] = at(0.999);
  state.counters["max_us"] = static_cast<double>(nanoseconds.back()) / 1000.0;
}

void BM_TrackBashLatency(benchmark::State& state, bool syncEveryEvent, Disk disk, Uploads uploads) {
  ScratchDirectory scratch(diskBase());
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  std::optional<CollectorProcess> collector;
  if (uploads != Uploads::none) {
    std::vector<std::string> options;
    if (uploads == Uploads::failing) options = {"--fail-status", "503", "--fail-seconds", "86400"};
    collector.emplace(scratch.path(), PELORA_COLLECTOR, options);
    if (collector->connectTo().empty()) return state.SkipWithError("cannot start pelora_collector");
  }
  auto configuration =
      std::make_shared<pelora::Configuration>("bench-write-key", std::nullopt, false);
  configuration->flushAt(uploads == Uploads::none ? INT64_MAX : 20)
      .flushInterval(86400)
      .paths(scratch.paths())
      .syncEveryEvent(syncEveryEvent);
  if (collector) configuration->connectTo({collector->connectTo()}).caBundle(PELORA_COLLECTOR_CA);
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  std::optional<BusyDisk> busy;
  if (disk == Disk::busy) busy.emplace(scratch.path());

  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  const std::string name = "Product Added";
  // The synced baseline takes milliseconds a call on a busy disk: fewer rounds of it.
  const int rounds = syncEveryEvent ? 5 : 20;
  std::vector<std::int64_t> latencies;
  latencies.reserve(static_cast<std::size_t>(rounds) * 1000);
  for (auto _ : state) {
    latencies.clear();
    const auto started = Clock::now();
    for (int round = 0; round < rounds; ++round) {
      for (int call = 0; call < 1000; ++call) {
        const auto before = Clock::now();
        analytics->trackBash(name, properties);
        latencies.push_back(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - before).count());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // a pause between bursts
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
  }
  reportPercentiles(state, latencies);
  analytics->shutdown(Clock::now() + std::chrono::seconds(2));
}

#define PELORA_LATENCY(name, ...)                           \
  BENCHMARK_CAPTURE(BM_TrackBashLatency, name, __VA_ARGS__) \
      ->Iterations(1)                                       \
      ->UseManualTime()                                     \
      ->Unit(benchmark::kMillisecond)

PELORA_LATENCY(quiet_noUploads, false, Disk::quiet, Uploads::none);
PELORA_LATENCY(quiet_uploads, false, Disk::quiet, Uploads::every20);
PELORA_LATENCY(quiet_uploadsFailing, false, Disk::quiet, Uploads::failing);
PELORA_LATENCY(busy_noUploads, false, Disk::busy, Uploads::none);
PELORA_LATENCY(busy_uploads, false, Disk::busy, Uploads::every20);
PELORA_LATENCY(syncEveryEvent_quiet_noUploads, true, Disk::quiet, Uploads::none);
PELORA_LATENCY(syncEveryEvent_quiet_uploads, true, Disk::quiet, Uploads::every20);
PELORA_LATENCY(syncEveryEvent_busy_noUploads, true, Disk::busy, Uploads::none);

// Events a second from N threads recording into one client, default mode, no uploads.
void BM_TrackBashThroughput(benchmark::State& state) {
  static std::optional<ScratchDirectory> scratch;
  static std::shared_ptr<pelora::PeloraAnalytics> analytics;
  if (state.thread_index() == 0) {
    scratch.emplace(diskBase());
    auto configuration =
        std::make_shared<pelora::Configuration>("bench-write-key", std::nullopt, false);
    configuration->flushAt(INT64_MAX).flushInterval(86400).paths(scratch->paths());
    analytics = pelora::PeloraAnalytics::create(configuration);
  }
  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  const std::string name = "Product Added";
  for (auto _ : state) analytics->trackBash(name, properties);
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    analytics->shutdown(Clock::now() + std::chrono::seconds(10));  // everything written out
    analytics.reset();
    scratch.reset();
  }
}
BENCHMARK(BM_TrackBashThroughput)->Threads(1)->Threads(8)->UseRealTime()->MinTime(2.0);

}  // namespace
