// Recording the same 10-property event from C++ (trackBash with a Dictionary), from C
// (pelora_track_bash with JSON text) and from Python (pelora.Client.track, in a process of its
// own), all on /dev/shm in the same run. The C API may cost at most what parsing the JSON text
// costs (BM_ParsePropertiesText) on top of the C++ call.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <pelora/pelora.h>
#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

using pelora::bench::ScratchDirectory;

// bench_support.hpp's hostProperties() as JSON text.
constexpr const char* propertiesText =
    R"({"product":"Rain jacket","sku":"RJ-2041-BLU-M","category":"outerwear","quantity":2,)"
    R"("stock":1840,"price":129.95,"discount":0.15,"gift":true,)"
    R"("shipping":{"method":"express","days":2},"tags":["sale","new",7]})";

void BM_TrackFromCpp(benchmark::State& state) {
  ScratchDirectory scratch("/dev/shm");
  auto configuration =
      std::make_shared<pelora::Configuration>("bench-write-key", std::nullopt, false);
  configuration->flushAt(INT64_MAX).flushInterval(86400).paths(scratch.paths());
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  for (auto _ : state) analytics->trackBash("Product Added", properties);
  analytics->shutdown(std::chrono::steady_clock::now());
}
BENCHMARK(BM_TrackFromCpp)->UseRealTime();

void BM_TrackFromC(benchmark::State& state) {
  ScratchDirectory scratch("/dev/shm");
  const auto paths = scratch.paths();
  pelora_config* config = nullptr;
  pelora_config_new("bench-write-key", nullptr, &config);
  pelora_config_set_enable_iam(config, 0);
  pelora_config_set_flush_at(config, INT64_MAX);
  pelora_config_set_flush_interval(config, 86400);
  pelora_config_set_paths(config, paths.documents.c_str(), paths.preferences.c_str());
  pelora_client* client = nullptr;
  if (pelora_client_new(config, &client) != PELORA_OK) {
    pelora_config_free(config);
    return state.SkipWithError(pelora_last_error());
  }
  pelora_config_free(config);
  for (auto _ : state) {
    if (pelora_track_bash(client, "Product Added", propertiesText) != PELORA_OK) {
      state.SkipWithError(pelora_last_error());
      break;
    }
  }
  pelora_client_free(client);
}
BENCHMARK(BM_TrackFromC)->UseRealTime();

void BM_ParsePropertiesText(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(pelora::JSON::parse(propertiesText));
}
BENCHMARK(BM_ParsePropertiesText);

// Python's own figure: the script times its calls and prints "ns_per_event N".
void BM_TrackFromPython(benchmark::State& state) {
  ScratchDirectory scratch("/dev/shm");
  const auto paths = scratch.paths();
  const std::string output = (scratch.path() / "python.out").string();
  const std::string script = std::string(PELORA_SOURCE_DIR) + "/bench/python_track.py";
  const std::string library = "PELORA_LIBRARY=" PELORA_SHARED_LIBRARY;
  const std::string pythonPath = "PYTHONPATH=" PELORA_SOURCE_DIR "/python";
  std::vector<std::string> environment = {library, pythonPath};
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  for (auto _ : state) {
    std::vector<std::string> argv = {"/usr/bin/python3", script, "20000", paths.documents.string(),
                                     paths.preferences.string()};
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (failed || ::waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
      return state.SkipWithError("python3 bench/python_track.py failed");
    }
    std::ifstream in(output);
    double nanoseconds = 0;
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("ns_per_event ", 0) == 0) nanoseconds = std::atof(line.c_str() + 13);
    }
    if (nanoseconds <= 0) return state.SkipWithError("no figure from python_track.py");
    state.SetIterationTime(nanoseconds / 1e9);
  }
}
BENCHMARK(BM_TrackFromPython)->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

}  // namespace
