// Appending one event durably: Storage::write with syncEveryEvent (encode, one append, fdatasync)
// against a bare write() + fdatasync() of the same bytes in the same directory. The ratio is the
// figure (target on disk: at most 1.15); the /dev/shm pair shows the cost without the disk.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include <pelora/pelora.hpp>
#include <pelora/state/storage.hpp>

#include "bench/bench_support.hpp"

namespace {

namespace fs = std::filesystem;
using pelora::Dictionary;
using pelora::JSON;
using pelora::bench::diskBase;
using pelora::bench::ScratchDirectory;

pelora::TrackEvent benchEvent() {
  pelora::TrackEvent event("Product Added", JSON(pelora::bench::hostProperties()));
  event.anonymousId = "5D0C4F2A-6B3E-4C1D-9A8F-7E6D5C4B3A21";
  event.messageId = "A1B2C3D4-E5F6-4711-8899-AABBCCDDEEFF";
  event.userId = "user-8841";
  event.timestamp = "2026-11-22T08:09:10.123Z";
  event.context = JSON(Dictionary{{"library", Dictionary{{"name", std::string("pelora-cpp")},
                                                         {"version", std::string("1.0.0")}}}});
  return event;
}

void appendThroughStorage(benchmark::State& state, const fs::path& base) {
  ScratchDirectory scratch(base);
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  // Batch files roll over at 475,000 bytes, so the current file stays bounded.
  auto storage = pelora::Storage::create(nullptr, "bench-write-key", scratch.paths(),
                                         {.syncEveryEvent = true});
  const pelora::TrackEvent event = benchEvent();
  for (auto _ : state) storage->write(pelora::Storage::Key::events, event);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(pelora::toString(event).size() + 1));
}

void appendBaseline(benchmark::State& state, const fs::path& base) {
  std::string bytes(",");  // built in steps: GCC 12 misreads `"," + string` at -O3 (-Wrestrict)
  bytes += pelora::toString(benchEvent());
  pelora::bench::syncedAppendBaseline(state, base, bytes);
}

void BM_StorageAppend(benchmark::State& state) {
  appendThroughStorage(state, diskBase());
}
BENCHMARK(BM_StorageAppend)->UseRealTime();

void BM_StorageAppendBaseline(benchmark::State& state) {
  appendBaseline(state, diskBase());
}
BENCHMARK(BM_StorageAppendBaseline)->UseRealTime();

void BM_StorageAppendShm(benchmark::State& state) {
  appendThroughStorage(state, "/dev/shm");
}
BENCHMARK(BM_StorageAppendShm)->UseRealTime();

void BM_StorageAppendShmBaseline(benchmark::State& state) {
  appendBaseline(state, "/dev/shm");
}
BENCHMARK(BM_StorageAppendShmBaseline)->UseRealTime();

}  // namespace
