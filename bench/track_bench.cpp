// Recording one event through the whole client: trackBash with 10 properties (conversion,
// completion, the timeline, the upload destination appending to its batch file with fdatasync;
// flushAt too high for any upload) against a bare append + fdatasync of the bytes that event adds
// to the file, in the same directory. Target on disk: at most 1.2 x the baseline. On /dev/shm the
// difference is our CPU cost per event.
//
// BM_RecordingPeakRSS/N runs pelora_memory_host, which records N events in a process of its own,
// and reports that process's peak RSS; /deliver also uploads them to a pelora_collector.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

namespace fs = std::filesystem;
using pelora::bench::diskBase;
using pelora::bench::ScratchDirectory;

constexpr std::string_view batchHeader = "{ \"batch\": [";

std::shared_ptr<pelora::PeloraAnalytics> recordingClient(const ScratchDirectory& scratch) {
  auto configuration =
      std::make_shared<pelora::Configuration>("bench-write-key", std::nullopt, false);
  configuration->flushAt(INT64_MAX).flushInterval(86400).paths(scratch.paths());
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

// Runs `argv` with its standard output into `outputFile`; the exit status, or -1.
int run(const std::vector<std::string>& argv, const fs::path& outputFile, pid_t* background) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int failed = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed) return -1;
  if (background) {
    *background = pid;
    return 0;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The first line of `file` that starts with `prefix`, without the prefix; empty when none does.
std::string lineAfter(const fs::path& file, std::string_view prefix) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
  }
  return {};
}

void BM_RecordingPeakRSS(benchmark::State& state, bool deliver) {
  ScratchDirectory scratch("/dev/shm");
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  std::vector<std::string> host = {PELORA_MEMORY_HOST, std::to_string(state.range(0)),
                                   scratch.path().string()};
  pid_t collector = -1;
  if (deliver) {
    const fs::path ready = scratch.path() / "connect-to";
    if (run({PELORA_COLLECTOR, "--quiet", "--port", "0", "--ready-file", ready.string()},
            scratch.path() / "collector.log", &collector) != 0) {
      return state.SkipWithError("cannot start pelora_collector");
    }
    for (int i = 0; i < 1000 && !fs::exists(ready); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    host.insert(host.end(),
                {"--connect-to", lineAfter(ready, ""), "--ca-file", PELORA_COLLECTOR_CA});
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
  if (collector > 0) {
    ::kill(collector, SIGTERM);
    ::waitpid(collector, nullptr, 0);
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
