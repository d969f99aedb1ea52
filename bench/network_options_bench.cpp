// The opt-in network options and consent:
//
// BM_BatchUpload/{demo,475KB}/{plain,gzip} uploads one batch file over HTTPS to a collector in a
// process of its own, again and again, as it is and gzip-compressed: the client's CPU per upload
// (the whole process: the HTTP session's worker reads, compresses and encrypts; the main thread
// only waits) and the bytes per upload as JSON and as received by the collector (TLS records and
// headers included, from its byte summary at exit). "demo" is a batch of the quickstart's first
// ten events (what the demo's uploads carry); "475KB" one of host events near the roll-over size.
//
// BM_TrackBashConsentPending records as BM_TrackBashShm does, with consent required and not given
// (events are still stored, and every 20 events an upload is due and held back): compare the two
// in one run,
//   pelora_bench --benchmark_filter='TrackBashShm$|ConsentPending'
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>

#include "bench/bench_support.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/http_session.hpp"

namespace pelora::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

enum class BatchKind { demo, large };

void recordDemoEvents(PeloraAnalytics& analytics) {
  analytics.trackBash("App Opened", Dictionary{{"from_background", false}});
  for (int i = 0; i < 8; ++i) {
    analytics.trackBash("Product Viewed", Dictionary{{"sku", "RJ-" + std::to_string(2041 + i)},
                                                     {"price", Decimal::parse("129.95").value()},
                                                     {"position", i + 1}});
  }
  analytics.trackBash("Order Completed", Dictionary{{"order_id", std::string("A-1001")},
                                                    {"total", Decimal::parse("259.90").value()},
                                                    {"currency", std::string("EUR")}});
}

// A finished batch file made by a real client (whose service refuses, so the file stays): its
// text, or empty when none was made.
std::string makeBatch(BatchKind kind) {
  ScratchDirectory scratch("/dev/shm");
  auto configuration = std::make_shared<Configuration>("bench-upload", std::nullopt, false);
  configuration->flushAt(INT64_MAX)
      .flushInterval(86400)
      .paths(scratch.paths())
      .connectTo({std::string(productionTrackingHost) + ":443:127.0.0.1:1"});
  auto analytics = PeloraAnalytics::create(configuration);
  if (kind == BatchKind::demo) {
    recordDemoEvents(*analytics);
  } else {
    // Stops short of the roll-over (475 KB), so that this is one batch.
    const auto batchDirectory = scratch.path() / "Documents/pelora/bench-upload";
    std::error_code error;
    do {
      analytics->trackBash("Product Added", hostProperties());
    } while (fs::file_size(batchDirectory / "0-pelora-events", error) < 470'000 && !error);
  }
  analytics->flush(Clock::now() + 2s);
  const auto waiting = analytics->pendingUploads();
  analytics->shutdown(Clock::now());
  if (!waiting || waiting->size() != 1) return {};
  std::ifstream in(waiting->front(), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void BM_BatchUpload(benchmark::State& state, BatchKind kind, bool compress) {
  ScratchDirectory scratch(diskBase());
  const std::string batch = makeBatch(kind);
  if (batch.empty()) return state.SkipWithError("no batch file was made");
  const fs::path file = scratch.path() / "batch.temp";
  std::ofstream(file, std::ios::binary) << batch;

  double cpu = 0;
  {
    CollectorProcess collector(scratch.path(), PELORA_COLLECTOR);
    if (collector.connectTo().empty()) return state.SkipWithError("the collector did not start");
    platform::HttpSessionOptions options;
    options.connectTo = {collector.connectTo()};
    options.caBundle = PELORA_COLLECTOR_CA;
    auto session = platform::HttpSession::create(options);
    auto upload = [&] {
      platform::HttpRequest request;
      request.method = "POST";
      request.url = "https://" + std::string(productionTrackingHost) + "/tracking-controller/b";
      request.headers = {{"Content-Type", "application/json; charset=utf-8"}};
      request.compressBody = compress;
      std::promise<int> done;
      session
          ->uploadTask(request, file.string(),
                       [&](const std::optional<platform::HttpResponse>& response,
                           const std::optional<platform::HttpError>&) {
                         done.set_value(response ? response->status : 0);
                       })
          ->resume();
      return done.get_future().get();
    };
    if (upload() != 200) return state.SkipWithError("the collector did not accept the batch");
    const double before = cpuSeconds();
    for (auto _ : state) {
      if (upload() != 200) return state.SkipWithError("an upload failed");
    }
    cpu = cpuSeconds() - before;
  }  // the collector writes its byte summary as it stops

  // "N as JSON, N received, ..." for every upload, the first (untimed) one included.
  const std::string summary =
      lineAfter(scratch.path() / "collector.log", "pelora_collector: batch bytes: ");
  const double uploads = static_cast<double>(state.iterations() + 1);
  const double json = std::stod(summary);
  const double received = std::stod(summary.substr(summary.find(", ") + 2));
  state.counters["json_bytes"] = json / uploads;
  state.counters["received_bytes"] = received / uploads;
  state.counters["received_per_json"] = received / json;
  state.counters["cpu_us_per_upload"] = cpu * 1e6 / static_cast<double>(state.iterations());
}
BENCHMARK_CAPTURE(BM_BatchUpload, demo / plain, BatchKind::demo, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_BatchUpload, demo / gzip, BatchKind::demo, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_BatchUpload, 475KB / plain, BatchKind::large, false)->UseRealTime();
BENCHMARK_CAPTURE(BM_BatchUpload, 475KB / gzip, BatchKind::large, true)->UseRealTime();

void BM_TrackBashConsentPending(benchmark::State& state) {
  ScratchDirectory scratch("/dev/shm");
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  auto configuration = std::make_shared<Configuration>("bench-write-key", std::nullopt, false);
  // The default flushAt: every 20 events an upload is due and the consent gate turns it back.
  configuration->flushInterval(86400).requireConsent(true).paths(scratch.paths());
  auto analytics = PeloraAnalytics::create(configuration);
  const std::optional<Dictionary> properties = hostProperties();
  const std::string name = "Product Added";
  for (auto _ : state) analytics->trackBash(name, properties);
}
BENCHMARK(BM_TrackBashConsentPending)->UseRealTime();

}  // namespace
}  // namespace pelora::bench
