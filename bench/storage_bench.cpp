// Appending one event durably: Storage::write (file status check, encode, one append, fdatasync)
// against a bare write() + fdatasync() of the same bytes in the same directory. The ratio is the
// figure (target on disk: at most 1.15); the /dev/shm pair shows the cost without the disk.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <pelora/delivery/storage.hpp>
#include <pelora/pelora.hpp>

namespace {

namespace fs = std::filesystem;
using pelora::Array;
using pelora::Decimal;
using pelora::Dictionary;
using pelora::JSON;

// A directory of its own under `base`, removed with everything in it at the end.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const fs::path& base) {
    std::string pattern = (base / "pelora-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// On disk: /var/tmp (kept across reboots, so never a RAM file system), else the temp directory.
fs::path diskBase() {
  std::error_code error;
  return fs::is_directory("/var/tmp", error) ? fs::path("/var/tmp") : fs::temp_directory_path();
}

pelora::TrackEvent benchEvent() {
  pelora::TrackEvent event(
      "Product Added",
      JSON(Dictionary{
          {"product", std::string("Rain jacket")},
          {"sku", std::string("RJ-2041-BLU-M")},
          {"category", std::string("outerwear")},
          {"quantity", 2},
          {"stock", std::int64_t{1840}},
          {"price", Decimal::parse("129.95").value()},
          {"discount", Decimal::parse("0.15").value()},
          {"gift", true},
          {"shipping", Dictionary{{"method", std::string("express")}, {"days", 2}}},
          {"tags", Array{std::string("sale"), std::string("new"), 7}},
      }));
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
  auto storage = pelora::Storage::create(nullptr, "bench-write-key",
                                         {scratch.path() / "Documents", scratch.path() / "config"});
  const pelora::TrackEvent event = benchEvent();
  for (auto _ : state) storage->write(pelora::Storage::Constants::events, event);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<std::int64_t>(pelora::toString(event).size() + 1));
}

void appendBaseline(benchmark::State& state, const fs::path& base) {
  ScratchDirectory scratch(base);
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
  std::string bytes(",");
  bytes.append(pelora::toString(benchEvent()));
  const int fd = ::open((scratch.path() / "baseline").c_str(),
                        O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return state.SkipWithError("cannot open the baseline file");
  std::size_t size = 0;
  for (auto _ : state) {
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      state.SkipWithError("write failed");
      break;
    }
    ::fdatasync(fd);
    size += bytes.size();
    if (size >= 475'000) {  // bounded like a batch file
      if (::ftruncate(fd, 0) != 0) state.SkipWithError("ftruncate failed");
      size = 0;
    }
  }
  ::close(fd);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
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
