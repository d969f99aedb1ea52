// What the benchmarks share: the 10-property event a host records, scratch directories on disk
// or in memory, and the baseline of durable recording (a bare append + fdatasync).
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include <pelora/pelora.hpp>

namespace pelora::bench {

// Ten properties of mixed kinds, as a host hands them over.
inline Dictionary hostProperties() {
  return Dictionary{
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
  };
}

// CPU time of the whole process (every thread), user and system, in seconds.
inline double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A directory of its own under `base`, removed with everything in it at the end.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(const std::filesystem::path& base) {
    std::string pattern = (base / "pelora-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  platform::Paths paths() const { return {path_ / "Documents", path_ / "config"}; }

 private:
  std::filesystem::path path_;
};

// On disk: /var/tmp (kept across reboots, so never a RAM file system), else the temp directory.
inline std::filesystem::path diskBase() {
  std::error_code error;
  return std::filesystem::is_directory("/var/tmp", error) ? std::filesystem::path("/var/tmp")
                                                          : std::filesystem::temp_directory_path();
}

// The floor of recording one event durably: `bytes` appended with one write() and fdatasync'd,
// in a file under `base` kept below the batch roll-over size.
inline void syncedAppendBaseline(benchmark::State& state, const std::filesystem::path& base,
                                 const std::string& bytes) {
  ScratchDirectory scratch(base);
  if (scratch.path().empty()) return state.SkipWithError("no scratch directory");
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
    if (size >= 475'000) {
      if (::ftruncate(fd, 0) != 0) state.SkipWithError("ftruncate failed");
      size = 0;
    }
  }
  ::close(fd);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

}  // namespace pelora::bench
