// A host for the crash trials: records events of mixed sizes (some over 1 MB, so that a kill can
// land inside a write) with flushes against the collector, and after each trackBash returns
// writes "ack <id>" and a newline to standard output, so the driver knows what was acknowledged
// (the library prints other lines there too). Runs until killed, or with --events N records N
// events (per thread), waits until everything is delivered and exits. With --threads N, N threads
// record at once (their events share syncs), each with its own ids "<run>-<thread>.<n>". With
// --max-stored-bytes N the disk bound is N bytes, and "dropped <total>" says when it deleted
// events. With --compress 1 batches are uploaded gzip-compressed. --journals DIR keeps the event
// journals there; with --sync-every-event 1 each event syncs its own write instead.
//
// usage: pelora_crash_host --data DIR --key KEY --run ID --connect-to ENTRY --ca-file FILE
//                          [--seed N] [--events N] [--threads N] [--max-stored-bytes N]
//                          [--compress 0|1] [--journals DIR] [--sync-every-event 0|1]
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <pelora/pelora.hpp>

namespace {

struct Options {
  std::string data;
  std::string key = "crash-key";
  std::string run = "0";
  std::string connectTo;
  std::string caFile;
  std::string journals;  // the library's default when empty
  bool syncEveryEvent = false;
  std::uint64_t seed = 1;
  std::int64_t events = -1;  // until killed
  int threads = 1;
  std::uint64_t maxStoredBytes = 0;  // the library's default bound
  bool compress = false;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--data") {
      options.data = value;
    } else if (name == "--key") {
      options.key = value;
    } else if (name == "--run") {
      options.run = value;
    } else if (name == "--connect-to") {
      options.connectTo = value;
    } else if (name == "--ca-file") {
      options.caFile = value;
    } else if (name == "--journals") {
      options.journals = value;
    } else if (name == "--sync-every-event") {
      options.syncEveryEvent = value == "1";
    } else if (name == "--seed") {
      options.seed = std::stoull(value);
    } else if (name == "--events") {
      options.events = std::stoll(value);
    } else if (name == "--threads") {
      options.threads = std::max(1, std::stoi(value));
    } else if (name == "--max-stored-bytes") {
      options.maxStoredBytes = std::stoull(value);
    } else if (name == "--compress") {
      options.compress = value == "1";
    } else {
      std::cerr << "pelora_crash_host: unknown option " << name << "\n";
      std::exit(2);
    }
  }
  if (options.data.empty()) {
    std::cerr << "usage: pelora_crash_host --data DIR [--key KEY] [--run ID] [--connect-to ENTRY]"
                 " [--ca-file FILE] [--seed N] [--events N] [--threads N] [--max-stored-bytes N]"
                 " [--compress 0|1] [--journals DIR] [--sync-every-event 0|1]\n";
    std::exit(2);
  }
  return options;
}

// Mostly small events, some of tens of kilobytes, a few of hundreds, and now and then one over a
// megabyte; text with escapes and multi-byte characters.
pelora::Dictionary properties(std::mt19937_64& random, const std::string& id, std::size_t& bytes) {
  const auto roll = random() % 1000;
  std::size_t size = 50 + random() % 500;
  if (roll >= 990) {
    size = 1'100'000 + random() % 400'000;
  } else if (roll >= 950) {
    size = 100'000 + random() % 300'000;
  } else if (roll >= 700) {
    size = 1'000 + random() % 20'000;
  }
  static const std::string pieces[] = {"plain ", "Tự động đóng ",       "\"quoted\" ",
                                       "tab\t",  "\x1B[31mred\x1B[0m ", "back\\slash "};
  std::string pad;
  pad.reserve(size + 32);
  while (pad.size() < size) pad += pieces[random() % std::size(pieces)];
  bytes = pad.size();
  return pelora::Dictionary{
      {"id", id},
      {"pad", std::move(pad)},
      {"price", pelora::Decimal::parse("12345678901234567890.123456789").value()},
      {"nested", pelora::Dictionary{{"list", pelora::Array{1, true, pelora::Null{}, 2.5}}}}};
}

bool say(const std::string& line) {
  return ::write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::mt19937_64 random(options.seed);
  auto configuration = std::make_shared<pelora::Configuration>(options.key, std::nullopt, false);
  configuration->flushAt(5 + static_cast<std::int64_t>(random() % 60))
      .flushInterval(0.5 + static_cast<double>(random() % 1000) / 1000.0)
      .paths({options.data + "/Documents", options.data + "/config", options.journals});
  if (!options.connectTo.empty()) configuration->connectTo({options.connectTo});
  if (!options.caFile.empty()) configuration->caBundle(options.caFile);
  if (options.maxStoredBytes > 0) configuration->maxStoredBytes(options.maxStoredBytes);
  configuration->compressBatches(options.compress).syncEveryEvent(options.syncEveryEvent);
  auto analytics = pelora::PeloraAnalytics::create(configuration);

  const auto flushEvery = 10 + random() % 90;
  std::atomic<bool> driverGone{false};
  std::atomic<std::uint64_t> droppedSaid{0};
  auto record = [&](int thread, std::uint64_t seed) {
    std::mt19937_64 threadRandom(seed);
    const std::string prefix =
        options.threads == 1 ? options.run + "-" : options.run + "-" + std::to_string(thread) + ".";
    for (std::int64_t i = 0; options.events < 0 || i < options.events; ++i) {
      const std::string id = prefix + std::to_string(i);
      std::size_t bytes = 0;
      analytics->trackBash("Crash trial", properties(threadRandom, id, bytes));
      // Events the disk bound deleted are gone by design: the driver counts them apart. Asked
      // every 16th event: the count writes out what was recorded first, and kills must also land
      // between a recording and its background write.
      if (i % 16 == 15) {
        const std::uint64_t dropped = analytics->droppedEventCount();
        if (droppedSaid.exchange(dropped) != dropped)
          (void)say("dropped " + std::to_string(dropped) + "\n");
      }
      if (!say("ack " + id + "\n")) {
        driverGone = true;
        return;
      }
      if (static_cast<std::uint64_t>(i) % flushEvery == flushEvery - 1) analytics->flush();
      // Paced like an application rather than a benchmark (about 10 MB/s per host, whatever its
      // threads): recording that returns in microseconds would outrun the uploads, and the disk
      // bound would be what the trials see.
      std::this_thread::sleep_for(std::chrono::microseconds(
          threadRandom() % 200 + bytes * static_cast<std::size_t>(options.threads) / 10));
    }
  };
  std::vector<std::thread> others;
  for (int t = 1; t < options.threads; ++t) others.emplace_back(record, t, random());
  record(0, random());
  for (auto& thread : others) thread.join();
  if (driverGone) return 1;
  // Everything recorded: deliver it before exiting.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (analytics->hasUnsentEvents()) {
    if (std::chrono::steady_clock::now() > deadline) return 1;
    analytics->flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return ::write(STDOUT_FILENO, "done\n", 5) == 5 ? 0 : 1;
}
