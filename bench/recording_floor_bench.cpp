// What recording one event must cost at least, against what trackBash costs, in the same run.
//
// The floor: the same 10-property event encoded with a bare RapidJSON Writer into a reused
// buffer (no intermediate tree), then one write() and one fdatasync() (BM_FloorEncodeWriteSync),
// or without the sync (BM_FloorEncodeWrite), or the encoding alone (BM_FloorEncode). Any recorder
// that keeps the durability promise (a returned call has its bytes on disk) pays at least the
// first. BM_TrackBashShm / BM_TrackBash (track_bench.cpp) are the library's figures for the ratio.
//
// Threads: events per second with 1, 2, 4 and 8 threads recording at once into one client
// (BM_TrackBashThreads*) against the floor with one file per thread (BM_FloorThreads*), on
// /dev/shm (CPU and contention) and on disk (each call durable: where threads could share a sync).
// Instructions per event: valgrind --tool=callgrind on pelora_memory_host (bench/RESULTS.md).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/bench_support.hpp"

namespace {

namespace fs = std::filesystem;
using pelora::bench::diskBase;
using pelora::bench::ScratchDirectory;

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// The event trackBash writes for hostProperties(), field for field, from the host's values.
void encodeFloorEvent(Writer& writer) {
  writer.StartObject();
  writer.Key("type");
  writer.String("track");
  writer.Key("anonymousId");
  writer.String("5A1F0C4E-7B2D-4E8A-9C1B-2F3D4E5F6A7B");
  writer.Key("messageId");
  writer.String("0B9E2C41-5D6F-4A8B-8C7D-1E2F3A4B5C6D");
  writer.Key("timestamp");
  writer.String("2026-11-24T02:13:07.123Z");
  writer.Key("integrations");
  writer.StartObject();
  writer.EndObject();
  writer.Key("_metadata");
  writer.StartObject();
  writer.Key("bundled");
  writer.StartArray();
  writer.EndArray();
  writer.Key("unbundled");
  writer.StartArray();
  writer.EndArray();
  writer.Key("bundledIds");
  writer.StartArray();
  writer.EndArray();
  writer.EndObject();
  writer.Key("event");
  writer.String("Product Added");
  writer.Key("properties");
  writer.StartObject();
  writer.Key("category");
  writer.String("outerwear");
  writer.Key("discount");
  writer.RawNumber("0.15", 4);
  writer.Key("gift");
  writer.Bool(true);
  writer.Key("price");
  writer.RawNumber("129.95", 6);
  writer.Key("product");
  writer.String("Rain jacket");
  writer.Key("quantity");
  writer.Int(2);
  writer.Key("shipping");
  writer.StartObject();
  writer.Key("days");
  writer.Int(2);
  writer.Key("method");
  writer.String("express");
  writer.EndObject();
  writer.Key("sku");
  writer.String("RJ-2041-BLU-M");
  writer.Key("stock");
  writer.Int64(1840);
  writer.Key("tags");
  writer.StartArray();
  writer.String("sale");
  writer.String("new");
  writer.Int(7);
  writer.EndArray();
  writer.EndObject();
  writer.EndObject();
}

// One thread's floor recorder: a file of its own, the encode buffer reused.
class FloorRecorder {
 public:
  explicit FloorRecorder(const fs::path& file)
      : fd_(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
  ~FloorRecorder() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }

  void encode() {
    buffer_.Clear();
    buffer_.Put(',');
    writer_.Reset(buffer_);
    encodeFloorEvent(writer_);
  }
  // Encodes and appends one event; fdatasync when `sync`. False on a failed write.
  bool record(bool sync) {
    encode();
    const auto length = static_cast<ssize_t>(buffer_.GetSize());
    if (::write(fd_, buffer_.GetString(), buffer_.GetSize()) != length) return false;
    if (sync) ::fdatasync(fd_);
    size_ += static_cast<std::size_t>(length);
    // Stays below a batch's roll-over size, like the recorder it stands for.
    if (size_ >= 475'000) {
      if (::ftruncate(fd_, 0) != 0) return false;
      size_ = 0;
    }
    return true;
  }
  std::size_t eventSize() const { return buffer_.GetSize(); }

 private:
  int fd_;
  rapidjson::StringBuffer buffer_;
  Writer writer_;
  std::size_t size_ = 0;
};

void BM_FloorEncode(benchmark::State& state) {
  FloorRecorder recorder("/dev/null");
  for (auto _ : state) {
    recorder.encode();
    benchmark::DoNotOptimize(recorder.eventSize());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FloorEncode);

// One recorder per call: with several threads, a file of its own for each.
void floorAppend(benchmark::State& state, const fs::path& base, bool sync) {
  ScratchDirectory scratch(base);
  FloorRecorder recorder(scratch.path() / "floor");
  if (!recorder.ok()) return state.SkipWithError("cannot open the floor's file");
  for (auto _ : state) {
    if (!recorder.record(sync)) return state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_FloorEncodeWriteShm(benchmark::State& state) {
  floorAppend(state, "/dev/shm", false);
}
BENCHMARK(BM_FloorEncodeWriteShm)->UseRealTime();

void BM_FloorEncodeWriteSyncShm(benchmark::State& state) {
  floorAppend(state, "/dev/shm", true);
}
BENCHMARK(BM_FloorEncodeWriteSyncShm)->UseRealTime();

void BM_FloorEncodeWriteSync(benchmark::State& state) {
  floorAppend(state, diskBase(), true);
}
BENCHMARK(BM_FloorEncodeWriteSync)->UseRealTime();

// ---- Threads ------------------------------------------------------------------------------------

// The client the threads of one run share, made before the run's threads start; its files are
// removed after they stop, so that a run never starts on the files earlier runs left (gigabytes on
// /dev/shm, which slowed the runs that came later). The client itself is kept, idle: shutting it
// down would try to upload all it recorded.
struct RunClient {
  std::unique_ptr<ScratchDirectory> scratch;
  std::shared_ptr<pelora::PeloraAnalytics> analytics;
  std::vector<std::shared_ptr<pelora::PeloraAnalytics>> idle;
};
RunClient& runClient() {
  static RunClient client;  // set and cleared by Setup/Teardown, between runs
  return client;
}

void startRunClient(const fs::path& base) {
  RunClient& client = runClient();
  client.scratch = std::make_unique<ScratchDirectory>(base);
  auto configuration =
      std::make_shared<pelora::Configuration>("bench-threads-key", std::nullopt, false);
  configuration->flushAt(INT64_MAX).flushInterval(86400).paths(client.scratch->paths());
  client.analytics = pelora::PeloraAnalytics::create(configuration);
}
void startShmClient(const benchmark::State&) {
  startRunClient("/dev/shm");
}
void startDiskClient(const benchmark::State&) {
  startRunClient(diskBase());
}
void stopRunClient(const benchmark::State&) {
  RunClient& client = runClient();
  if (client.analytics) client.idle.push_back(std::move(client.analytics));
  client.scratch.reset();
}

void trackThreads(benchmark::State& state) {
  const auto analytics = runClient().analytics;
  if (!analytics) return state.SkipWithError("no client");
  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  const std::string name = "Product Added";
  for (auto _ : state) analytics->trackBash(name, properties);
  state.SetItemsProcessed(state.iterations());
}

void BM_TrackBashThreadsShm(benchmark::State& state) {
  trackThreads(state);
}
BENCHMARK(BM_TrackBashThreadsShm)
    ->ThreadRange(1, 8)
    ->UseRealTime()
    ->Setup(startShmClient)
    ->Teardown(stopRunClient);

void BM_FloorThreadsShm(benchmark::State& state) {
  floorAppend(state, "/dev/shm", false);
}
BENCHMARK(BM_FloorThreadsShm)->ThreadRange(1, 8)->UseRealTime();

void BM_TrackBashThreadsDisk(benchmark::State& state) {
  trackThreads(state);
}
BENCHMARK(BM_TrackBashThreadsDisk)
    ->ThreadRange(1, 8)
    ->UseRealTime()
    ->Setup(startDiskClient)
    ->Teardown(stopRunClient);

void BM_FloorSyncThreadsDisk(benchmark::State& state) {
  floorAppend(state, diskBase(), true);
}
BENCHMARK(BM_FloorSyncThreadsDisk)->ThreadRange(1, 8)->UseRealTime();

}  // namespace
