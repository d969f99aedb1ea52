// What the benchmarks share: the 10-property event a host records, scratch directories on disk
// or in memory, the baseline of durable recording (a bare append + fdatasync), and running the
// collector or a host as a process of its own.
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
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

// Runs `argv` with its standard output into `outputFile`; the exit status, or -1. With
// `background` it does not wait: the child's pid goes there and 0 is returned.
inline int run(const std::vector<std::string>& argv, const std::filesystem::path& outputFile,
               pid_t* background) {
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
inline std::string lineAfter(const std::filesystem::path& file, std::string_view prefix) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
  }
  return {};
}

// pelora_collector in a process of its own, so that its memory and CPU are not the host's; stopped
// at the end. `connectTo()` is empty when it did not start.
class CollectorProcess {
 public:
  CollectorProcess(const std::filesystem::path& scratch, const std::string& executable,
                   std::vector<std::string> options = {}) {
    const std::filesystem::path ready = scratch / "collector-connect-to";
    std::vector<std::string> argv = {executable, "--quiet",      "--port",
                                     "0",        "--ready-file", ready.string()};
    argv.insert(argv.end(), options.begin(), options.end());
    if (run(argv, scratch / "collector.log", &pid_) != 0) return;
    for (int i = 0; i < 1000 && connectTo_.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      connectTo_ = lineAfter(ready, "");
    }
  }
  ~CollectorProcess() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  CollectorProcess(const CollectorProcess&) = delete;
  CollectorProcess& operator=(const CollectorProcess&) = delete;

  // The connect-to entry that sends the production tracking host to it.
  const std::string& connectTo() const { return connectTo_; }

 private:
  pid_t pid_ = -1;
  std::string connectTo_;
};

}  // namespace pelora::bench
