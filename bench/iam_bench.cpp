// In-app message polling, measured with the local collector in-process: what a pull that the
// service holds costs while nothing happens, what 1,000 answered pulls leave behind, and what the
// loop does when the service cannot be reached (by default it backs off after a few failures; the
// configuration's iamRetryDelay makes it wait a fixed time instead). Each runs once; the figures
// are counters.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/bench_support.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/messages/iam_manager.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"

namespace pelora::bench {
namespace {

using namespace std::chrono_literals;

double residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6));
  }
  return 0;
}

double threads() {
  double count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    ++count;
  return count;
}

IAMManager::Setup setupFor(const std::string& connectTo, const std::string& caFile) {
  const std::string url(productionIAMBaseURL);
  IAMManager::Setup setup;
  setup.hostDomain = url;
  setup.workSpaceId = "bench-key";
  setup.peloraUserId = "bench-user";
  setup.connectTo = {url.substr(url.find("://") + 3) + ":443:" + connectTo};
  setup.caBundle = caFile;
  return setup;
}

// A pull held open by the service for 30 s: the CPU the whole process uses meanwhile.
void BM_IAMIdleHeldPull(benchmark::State& state) {
  collector::Collector collector;
  collector.holdPulls(120s);
  auto manager = IAMManager::shared();
  for (auto _ : state) {
    manager->start(
        setupFor("127.0.0.1:" + std::to_string(collector.port()), collector.certificates().caFile));
    collector.waitFor([](const auto& c) { return c.pulls >= 1; }, 10s);
    const double before = cpuSeconds();
    std::this_thread::sleep_for(30s);
    state.counters["cpu_s_in_30s"] = cpuSeconds() - before;
    manager->stopPolling();
  }
}
BENCHMARK(BM_IAMIdleHeldPull)->Iterations(1)->Unit(benchmark::kSecond);

// 1,000 pulls answered at once (no message): memory and threads after the first 100 and after
// 1,100; then memory after 4,000 more (the in-process collector keeps a line per pull).
void BM_IAMThousandPulls(benchmark::State& state) {
  collector::Collector collector;
  collector.holdPulls(0ms);
  auto manager = IAMManager::shared();
  for (auto _ : state) {
    manager->start(
        setupFor("127.0.0.1:" + std::to_string(collector.port()), collector.certificates().caFile));
    collector.waitFor([](const auto& c) { return c.pulls >= 100; }, 60s);
    const double rss = residentKiB();
    const double before = threads();
    const auto begin = std::chrono::steady_clock::now();
    collector.waitFor([](const auto& c) { return c.pulls >= 1100; }, 120s);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double afterThousand = residentKiB();
    collector.waitFor([](const auto& c) { return c.pulls >= 5100; }, 120s);
    state.counters["rss_growth_KiB"] = afterThousand - rss;
    state.counters["rss_growth_KiB_next_4000"] = residentKiB() - afterThousand;
    state.counters["threads_before"] = before;
    state.counters["threads_after"] = threads();
    state.counters["pulls_per_s"] = 1000 / seconds;
    manager->stopPolling();
  }
}
BENCHMARK(BM_IAMThousandPulls)->Iterations(1)->Unit(benchmark::kSecond);

// The service's port refuses connections, for 5 s: pulls in the first 3 s, pulls per second and
// the share of one core over the 5 s. Argument: the host's retry delay in milliseconds (0, the
// default, leaves the waits to the loop's own backoff).
void BM_IAMUnreachable(benchmark::State& state) {
  auto manager = IAMManager::shared();
  for (auto _ : state) {
    auto setup = setupFor("127.0.0.1:" + std::to_string(test::closedPort()), "");
    setup.retryDelay = std::chrono::milliseconds(state.range(0));
    const auto pulls = manager->pullsStarted();
    const double cpu = cpuSeconds();
    manager->start(setup);
    std::this_thread::sleep_for(1s);
    const double rss = residentKiB();
    std::this_thread::sleep_for(2s);
    state.counters["pulls_first_3s"] = static_cast<double>(manager->pullsStarted() - pulls);
    std::this_thread::sleep_for(2s);
    state.counters["pulls_per_s"] = static_cast<double>(manager->pullsStarted() - pulls) / 5;
    state.counters["cpu_percent"] = (cpuSeconds() - cpu) / 5 * 100;
    state.counters["rss_growth_KiB_last_4s"] = residentKiB() - rss;
    manager->stopPolling();
  }
}
BENCHMARK(BM_IAMUnreachable)->Arg(0)->Arg(1000)->Iterations(1)->Unit(benchmark::kSecond);

// The same at default settings for a whole minute, where the waits between pulls have grown: the
// share of one core the offline loop keeps. A minute long, so it runs only when the filter names
// it: --benchmark_filter=IAMUnreachableMinute.
void BM_IAMUnreachableMinute(benchmark::State& state) {
  if (benchmark::GetBenchmarkFilter().find("IAMUnreachableMinute") == std::string::npos) {
    state.SkipWithError("a minute long: run with --benchmark_filter=IAMUnreachableMinute");
    return;
  }
  auto manager = IAMManager::shared();
  for (auto _ : state) {
    const auto setup = setupFor("127.0.0.1:" + std::to_string(test::closedPort()), "");
    const auto pulls = manager->pullsStarted();
    const double cpu = cpuSeconds();
    manager->start(setup);
    std::this_thread::sleep_for(3s);
    state.counters["pulls_first_3s"] = static_cast<double>(manager->pullsStarted() - pulls);
    std::this_thread::sleep_for(57s);
    state.counters["pulls_in_60s"] = static_cast<double>(manager->pullsStarted() - pulls);
    state.counters["cpu_percent"] = (cpuSeconds() - cpu) / 60 * 100;
    manager->stopPolling();
  }
}
BENCHMARK(BM_IAMUnreachableMinute)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace pelora::bench
