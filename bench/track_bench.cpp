// Recording one event through the whole client with syncEveryEvent: trackBash with 10 properties
// (conversion, completion, the timeline, the upload destination appending to its batch file with
// fdatasync; flushAt too high for any upload) against a bare append + fdatasync of the bytes that
// event adds to the file, in the same directory. Target on disk: at most 1.2 x the baseline. On
// /dev/shm the difference is our CPU cost per event.
//
// BM_RecordingPeakRSS/N runs pelora_memory_host, which records N events in a process of its own,
// and reports that process's peak RSS; /deliver also uploads them to a pelora_collector.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

namespace fs = std::filesystem;
using pelora::bench::CollectorProcess;
using pelora::bench::diskBase;
using pelora::bench::lineAfter;
using pelora::bench::run;
using pelora::bench::ScratchDirectory;

constexpr std::string_view batchHeader = "{ \"batch\": [";

// Each event synced by its own call (the mode that this comparison is about).
std::shared_ptr<pelora::PeloraAnalytics> recordingClient(const ScratchDirectory& scratch) {
  auto configuration =
      std::make_shared<pelora::Configuration>("bench-write-key", std::nullopt, false);
  configuration->flushAt(INT64_MAX)
      .flushInterval(86400)
      .paths(scratch.paths())
      .syncEveryEvent(true);
  return pelora::PeloraAnalytics::create(configuration);
}

void trackThroughClient(benchmark::State& state, const fs::path& base) {
  ScratchDirectory scratch(base);
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  auto analytics = recordingClient(scratch);
  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  const std::string name = "Product Added";
  for (auto _ : state) analytics->trackBash(name, properties);
}

// What one recorded event adds to a batch file: a comma and the event's text.
std::string recordedEventBytes(const fs::path& base) {
  ScratchDirectory scratch(base);
  auto analytics = recordingClient(scratch);
  analytics->trackBash("Product Added", pelora::bench::hostProperties());
  analytics->storage()->syncEvents();
  std::error_code error;
  auto size =
      fs::file_size(scratch.path() / "Documents/pelora/bench-write-key/0-pelora-events", error);
  if (error || size <= batchHeader.size()) return {};
  return std::string(size - batchHeader.size() + 1, 'x');
}

void trackBaseline(benchmark::State& state, const fs::path& base) {
  const std::string bytes = recordedEventBytes(base);
  if (bytes.empty()) return state.SkipWithError("the client wrote no batch file");
  pelora::bench::syncedAppendBaseline(state, base, bytes);
}

void BM_TrackBash(benchmark::State& state) {
  trackThroughClient(state, diskBase());
}
BENCHMARK(BM_TrackBash)->UseRealTime();

void BM_TrackBashBaseline(benchmark::State& state) {
  trackBaseline(state, diskBase());
}
BENCHMARK(BM_TrackBashBaseline)->UseRealTime();

void BM_TrackBashShm(benchmark::State& state) {
  trackThroughClient(state, "/dev/shm");
}
BENCHMARK(BM_TrackBashShm)->UseRealTime();

void BM_TrackBashShmBaseline(benchmark::State& state) {
  trackBaseline(state, "/dev/shm");
}
BENCHMARK(BM_TrackBashShmBaseline)->UseRealTime();

void BM_RecordingPeakRSS(benchmark::State& state, bool deliver) {
  ScratchDirectory scratch("/dev/shm");
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  std::vector<std::string> host = {PELORA_MEMORY_HOST, std::to_string(state.range(0)),
                                   scratch.path().string()};
  std::optional<CollectorProcess> collector;
  if (deliver) {
    collector.emplace(scratch.path(), PELORA_COLLECTOR);
    if (collector->connectTo().empty()) return state.SkipWithError("cannot start pelora_collector");
    host.insert(host.end(),
                {"--connect-to", collector->connectTo(), "--ca-file", PELORA_COLLECTOR_CA});
  }
  long peakKiB = -1;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    if (run(host, scratch.path() / "host.out", nullptr) != 0) {
      state.SkipWithError("pelora_memory_host failed");
      break;
    }
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    auto peak = lineAfter(scratch.path() / "host.out", "peak_rss_kib ");
    if (!peak.empty()) peakKiB = std::stol(peak);
  }
  state.counters["peak_rss_MiB"] = static_cast<double>(peakKiB) / 1024.0;
}
BENCHMARK_CAPTURE(BM_RecordingPeakRSS, record, false)
    ->Arg(20'000)
    ->Arg(200'000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_RecordingPeakRSS, deliver, true)
    ->Arg(20'000)
    ->Arg(200'000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
