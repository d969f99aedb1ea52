// pelora_memory_host: records N events of 10 properties through a client whose files live under
// DATA_DIR, then prints its peak resident set size ("peak_rss_kib N") and exits. Without
// --connect-to nothing is uploaded; with it, the client flushes every 20 events to that collector
// and waits until everything was delivered before reporting.
//
// usage: pelora_memory_host N DATA_DIR [--connect-to ENTRY --ca-file FILE]
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

long peakRSSKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 7) {
    std::cerr << "usage: pelora_memory_host N DATA_DIR [--connect-to ENTRY --ca-file FILE]\n";
    return 2;
  }
  const std::int64_t count = std::stoll(argv[1]);
  const std::string data = argv[2];
  const bool deliver = argc == 7;

  auto configuration = std::make_shared<pelora::Configuration>("memory-key", std::nullopt, false);
  configuration->paths({data + "/Documents", data + "/config"});
  if (deliver) {
    configuration->flushAt(20).flushInterval(1).connectTo({argv[4]}).caBundle(argv[6]);
  } else {
    configuration->flushAt(INT64_MAX).flushInterval(86400);
  }
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  const std::optional<pelora::Dictionary> properties = pelora::bench::hostProperties();
  const std::string name = "Product Added";
  for (std::int64_t i = 0; i < count; ++i) analytics->trackBash(name, properties);
  if (deliver) {
    analytics->flush();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    while (analytics->hasUnsentEvents()) {
      if (std::chrono::steady_clock::now() > deadline) {
        std::cerr << "pelora_memory_host: not delivered after 5 minutes\n";
        return 1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  std::cout << "peak_rss_kib " << peakRSSKiB() << std::endl;
  return 0;
}
