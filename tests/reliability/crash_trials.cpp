// Crash trials: hosts (pelora_crash_host) record events into one data directory and are killed
// with SIGKILL at random instants, one or two at a time, then restarted on the same directories.
// A third of the hosts record from 2 to 8 threads at once; half of them (by seed) upload their
// batches gzip-compressed.
// At the end a client delivers what is left. Every event that a host acknowledged must have
// reached the collector; an event may arrive twice only inside a whole batch sent again after a
// kill took the answer to its first upload (the same batch, accepted around a kill and again
// after it); every finished batch on disk must parse, and the collector must have refused nothing.
// With --max-stored-bytes N the hosts keep a small disk bound: then no more events may be missing
// than the hosts said their bound deleted.
//
// usage: pelora_crash_trials --host PATH [--trials N] [--seed N] [--max-kill-ms N]
//                            [--max-stored-bytes N] [--sync-every-event-percent N]
// Prints one summary line and exits 0 when nothing was lost (beyond what the bound deleted),
// duplicated without cause or corrupt.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/pelora.hpp"
#include "pelora/platform/clock.hpp"
#include "pelora/state/event_journal.hpp"
#include "tests/support/temp_directory.hpp"
#include "tools/collector/collector.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
  std::string host;
  int trials = 30;
  std::uint64_t seed = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
  int maxKillMs = 1500;
  std::uint64_t maxStoredBytes = 0;  // the hosts' disk bound; 0 keeps the library's default
  int syncEveryEventPercent = 25;    // hosts whose events each sync their own write
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--host") {
      options.host = value;
    } else if (name == "--trials") {
      options.trials = std::stoi(value);
    } else if (name == "--seed") {
      options.seed = std::stoull(value);
    } else if (name == "--max-kill-ms") {
      options.maxKillMs = std::stoi(value);
    } else if (name == "--max-stored-bytes") {
      options.maxStoredBytes = std::stoull(value);
    } else if (name == "--sync-every-event-percent") {
      options.syncEveryEventPercent = std::stoi(value);
    } else {
      std::cerr << "pelora_crash_trials: unknown option " << name << "\n";
      std::exit(2);
    }
  }
  if (options.host.empty()) {
    std::cerr << "usage: pelora_crash_trials --host PATH [--trials N] [--seed N]"
                 " [--max-kill-ms N] [--max-stored-bytes N] [--sync-every-event-percent N]\n";
    std::exit(2);
  }
  return options;
}

// One running host and what it has acknowledged so far.
struct Host {
  pid_t pid = -1;
  int output = -1;
  std::string run;
  std::string pending;        // an unfinished line: not acknowledged
  std::uint64_t dropped = 0;  // events its disk bound deleted, as it last said

  void take(std::set<std::string>& acknowledged) {
    char buffer[65536];
    for (;;) {
      const ssize_t n = ::read(output, buffer, sizeof buffer);
      if (n <= 0) return;
      pending.append(buffer, static_cast<std::size_t>(n));
      for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        if (pending.starts_with("ack ")) {
          acknowledged.insert(pending.substr(4, end - 4));
        } else if (pending.starts_with("dropped ")) {
          dropped = std::max<std::uint64_t>(dropped, std::stoull(pending.substr(8, end - 8)));
        } else if (pending.starts_with("Pelora: events")) {
          // The library says events could not be stored: worth seeing next to a loss.
          std::cerr << "host " << run << ": " << pending.substr(0, end) << "\n";
        }
        pending.erase(0, end + 1);
      }
    }
  }
};

Host start(const Options& options, const fs::path& data, const std::string& run, std::uint64_t seed,
           int threads, const pelora::collector::Collector& collector) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  const std::vector<std::string> arguments = {
      options.host,
      "--data",
      data.string(),
      "--run",
      run,
      "--seed",
      std::to_string(seed),
      "--connect-to",
      collector.connectTo(pelora::productionTrackingHost),
      "--ca-file",
      collector.certificates().caFile,
      "--threads",
      std::to_string(threads),
      "--max-stored-bytes",
      std::to_string(options.maxStoredBytes),
      "--compress",
      seed % 2 == 0 ? "1" : "0",
      "--journals",
      (data / "journals").string(),
      "--sync-every-event",
      static_cast<int>(seed / 2 % 100) < options.syncEveryEventPercent ? "1" : "0"};
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  Host host;
  host.run = run;
  if (posix_spawn(&host.pid, options.host.c_str(), &actions, nullptr, argv.data(), environ) != 0)
    throw std::runtime_error("cannot start " + options.host);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  host.output = pipeFds[0];
  ::fcntl(host.output, F_SETFL, O_NONBLOCK);
  return host;
}

// Finished batches that the strict reader refuses.
int corruptBatches(const fs::path& data, std::ostream& log) {
  int corrupt = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(data / "Documents", error), end; !error && it != end;
       it.increment(error)) {
    if (it->path().extension() != ".temp") continue;
    std::ifstream in(it->path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    try {
      (void)pelora::JSON::parse(text);
    } catch (const std::exception& e) {
      ++corrupt;
      log << "corrupt batch " << it->path() << ": " << e.what() << "\n";
    }
  }
  return corrupt;
}

// Every id written as an event's "id" property (`"id":"<run>-<n>"`) in `text`. Escaped quotes in
// the padding cannot look like this, and messageId/anonymousId have no quote before the "id".
void collectIds(std::string_view text, std::set<std::string>& ids) {
  constexpr std::string_view key = "\"id\":\"";
  for (auto at = text.find(key); at != std::string_view::npos; at = text.find(key, at)) {
    at += key.size();
    const auto end = text.find('"', at);
    if (end == std::string_view::npos) return;
    ids.insert(std::string(text.substr(at, end - at)));
  }
}

// Ids of the events in every batch file under `data`, finished or not, and in the records that the
// event journals of dead hosts still hold (the next host writes them to a batch).
std::set<std::string> idsOnDisk(const fs::path& data) {
  std::set<std::string> ids;
  const std::string owner = (data / "Documents" / "pelora" / "crash-key").native();
  for (const auto& file : pelora::detail::EventJournal::listFor(data / "journals", owner, {})) {
    if (const auto dead = pelora::detail::EventJournal::adoptDead(file, owner)) {
      for (const auto& text : dead->recoverable()) collectIds(text, ids);
    }
  }
  std::error_code error;
  for (fs::recursive_directory_iterator it(data / "Documents", error), end; !error && it != end;
       it.increment(error)) {
    std::error_code typeError;
    if (!it->is_regular_file(typeError)) continue;
    std::ifstream in(it->path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    collectIds(text, ids);
  }
  return ids;
}

// Follows the collector's JSON lines: the ids of the batches it accepted so far.
class Received {
 public:
  explicit Received(const std::string& file) : file_(file) {}
  // Reads the lines added since the last call; drops their ids from `pending`.
  void take(std::set<std::string>& pending) {
    std::ifstream in(file_, std::ios::binary);
    in.seekg(offset_);
    for (std::string line; std::getline(in, line);) {
      if (in.eof()) break;  // an unfinished line: read it next time
      offset_ += static_cast<std::streamoff>(line.size()) + 1;
      std::set<std::string> ids;
      collectIds(line, ids);
      for (const auto& id : ids) pending.erase(id);
    }
  }

 private:
  std::string file_;
  std::streamoff offset_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::mt19937_64 random(options.seed);
  pelora::test::TempDirectory root("pelora-crash-trials");
  const fs::path data = root.path() / "data";
  pelora::collector::CollectorOptions collectorOptions;
  collectorOptions.jsonLinesFile = (root.path() / "received.jsonl").string();
  collectorOptions.keepEvents = false;
  // The ids are all that is read back; whole bodies would come to tens of gigabytes a run.
  collectorOptions.jsonLinesMaxString = 64;
  pelora::collector::Collector collector(collectorOptions);

  std::set<std::string> acknowledged;
  std::vector<std::chrono::system_clock::time_point> kills;
  int corrupt = 0;
  std::uint64_t dropped = 0;  // by the hosts' disk bound, as they said
  // Acknowledged ids not received yet: after every trial each must still be in a batch on disk.
  // A trial that loses one keeps a copy of the directory, so that the loss can be looked at.
  std::set<std::string> undelivered;
  Received followed(collectorOptions.jsonLinesFile);
  for (int trial = 0; trial < options.trials; ++trial) {
    // Every fourth trial has two processes recording into the directory at once.
    const int writers = trial % 4 == 3 ? 2 : 1;
    std::vector<Host> hosts;
    for (int w = 0; w < writers; ++w) {
      // A third of the hosts record from several threads at once, which then share syncs.
      const int threads = random() % 3 == 0 ? 2 + static_cast<int>(random() % 7) : 1;
      hosts.push_back(start(options, data, std::to_string(trial) + "." + std::to_string(w),
                            random(), threads, collector));
    }
    // A fifth of the kills come early, during start-up and recovery.
    const int killMs = random() % 5 == 0 ? static_cast<int>(random() % 60)
                                         : static_cast<int>(random() % options.maxKillMs);
    const auto killAt = Clock::now() + std::chrono::milliseconds(killMs);
    std::vector<pollfd> fds;
    for (const Host& host : hosts) fds.push_back({host.output, POLLIN, 0});
    while (Clock::now() < killAt) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(killAt - Clock::now()).count();
      ::poll(fds.data(), fds.size(), static_cast<int>(std::max<long long>(left, 0)));
      for (Host& host : hosts) host.take(acknowledged);
    }
    // With two writers the second lives on a while, long enough to find and finish what the first
    // left behind.
    ::kill(hosts[0].pid, SIGKILL);
    kills.push_back(std::chrono::system_clock::now());
    if (hosts.size() > 1) {
      const auto secondKillAt =
          Clock::now() + std::chrono::milliseconds(random() % (options.maxKillMs / 2 + 1));
      while (Clock::now() < secondKillAt) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(secondKillAt - Clock::now())
                .count();
        ::poll(fds.data() + 1, 1, static_cast<int>(std::max<long long>(left, 0)));
        hosts[1].take(acknowledged);
      }
      ::kill(hosts[1].pid, SIGKILL);
      kills.push_back(std::chrono::system_clock::now());
    }
    for (Host& host : hosts) {
      int status = 0;
      ::waitpid(host.pid, &status, 0);
      host.take(acknowledged);  // lines written before the kill
      ::close(host.output);
      if (!WIFSIGNALED(status)) {
        std::cerr << "trial " << trial << ": the host ended before the kill (status " << status
                  << ")\n";
        return 1;
      }
    }
    corrupt += corruptBatches(data, std::cerr);
    std::uint64_t droppedNow = 0;
    for (const Host& host : hosts) droppedNow += host.dropped;
    dropped += droppedNow;

    // This trial's ids ("<trial>.<writer>-<n>") sit together in the ordered set.
    const std::string prefix = std::to_string(trial) + ".";
    for (auto it = acknowledged.lower_bound(prefix);
         it != acknowledged.end() && it->starts_with(prefix); ++it) {
      undelivered.insert(*it);
    }
    followed.take(undelivered);
    std::set<std::string> missing;
    for (int look = 0; look < 2; ++look) {
      missing.clear();
      const std::set<std::string> onDisk = idsOnDisk(data);
      for (const auto& id : undelivered) {
        if (!onDisk.count(id)) missing.insert(id);
      }
      if (missing.empty()) break;
      // The collector may still be writing down a batch that arrived as its sender died.
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      followed.take(undelivered);
    }
    if (!missing.empty()) {
      const fs::path kept =
          fs::temp_directory_path() /
          ("pelora-crash-loss-" + std::to_string(options.seed) + "-" + std::to_string(trial));
      std::error_code copyError;
      fs::copy(data, kept, fs::copy_options::recursive, copyError);
      // An event that found the disk full is lost by design: say how much room there is.
      std::error_code spaceError;
      const auto space = fs::space(data, spaceError);
      std::cerr << "trial " << trial << ": " << missing.size()
                << " acknowledged events neither on disk nor received (first: " << *missing.begin()
                << "); directory kept in " << kept << "; " << (space.available >> 20)
                << " MiB free; the disk bound dropped " << droppedNow << " events in this trial\n";
      for (const auto& id : missing) undelivered.erase(id);
    }
  }

  // What is left goes out through one more client that nobody kills.
  auto configuration = std::make_shared<pelora::Configuration>("crash-key", std::nullopt, false);
  configuration->flushAt(1'000'000)
      .flushInterval(3600)
      .paths({data / "Documents", data / "config", data / "journals"})
      .connectTo({collector.connectTo(pelora::productionTrackingHost)})
      .caBundle(collector.certificates().caFile);
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  const auto deadline = Clock::now() + std::chrono::seconds(300);
  while (analytics->hasUnsentEvents() && Clock::now() < deadline) {
    analytics->flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const bool drained = !analytics->hasUnsentEvents();
  corrupt += corruptBatches(data, std::cerr);
  corrupt += static_cast<int>(collector.counts().rejected);

  // Arrivals per id, and the batches they came in (a batch is its sentAt and its ids). A batch
  // accepted again is a resend after a lost answer only when a kill came between the two.
  std::map<std::string, int> arrivals;
  std::map<std::string, std::string> firstAccepted;  // batch identity -> receivedAt
  std::ifstream received(collectorOptions.jsonLinesFile);
  std::set<std::string> explained;
  // The collector may accept the upload a little after its sender died (the answer is what the
  // kill took), so a kill up to a second before the first acceptance counts too.
  auto killedBetween = [&](const std::string& first, const std::string& again) {
    for (const auto& kill : kills) {
      if (pelora::platform::iso8601(kill) <= again &&
          first <= pelora::platform::iso8601(kill + std::chrono::seconds(1)))
        return true;
    }
    return false;
  };
  for (std::string line; std::getline(received, line);) {
    const pelora::JSON entry = pelora::JSON::parse(line);
    if (entry["kind"] != pelora::JSON("batch")) continue;
    const std::string receivedAt = entry["receivedAt"]->stringValue().value_or("");
    const pelora::JSON body = *entry["body"];
    std::string identity = body["sentAt"]->stringValue().value_or("");
    std::vector<std::string> ids;
    const pelora::JSON events = body["batch"].value_or(pelora::JSON::List{});
    for (const auto& event : *events.listPointer()) {
      const std::string id = event.value<std::string>("properties.id").value_or("?");
      ids.push_back(id);
      identity += "|" + id;
    }
    const auto first = firstAccepted.emplace(identity, receivedAt);
    const bool resent = !first.second && killedBetween(first.first->second, receivedAt);
    for (const auto& id : ids) {
      if (++arrivals[id] > 1 && resent) explained.insert(id);
    }
  }

  std::size_t delivered = 0, lost = 0, duplicated = 0, unexplained = 0, unacknowledged = 0;
  for (const auto& id : acknowledged) {
    if (arrivals.count(id)) {
      ++delivered;
    } else {
      ++lost;
      if (lost <= 10) std::cerr << "lost: " << id << "\n";
    }
  }
  for (const auto& [id, times] : arrivals) {
    if (!acknowledged.count(id)) ++unacknowledged;
    if (times > 1) {
      ++duplicated;
      if (!explained.count(id)) {
        ++unexplained;
        if (unexplained <= 10) std::cerr << "sent twice without cause: " << id << "\n";
      }
    }
  }
  std::cout << "crash trials: " << options.trials << " trials, seed " << options.seed
            << ": acknowledged " << acknowledged.size() << ", delivered " << delivered << " (and "
            << unacknowledged << " stored before their acknowledgement was written)"
            << ", lost " << lost << " (the disk bound dropped " << dropped << ")"
            << ", duplicated " << duplicated << " (" << unexplained
            << " without a resent batch), corrupt " << corrupt << (drained ? "" : ", NOT DRAINED")
            << "\n";
  // Within the bound nothing may go; past it, no more than the bound said it deleted.
  return lost <= dropped && unexplained == 0 && corrupt == 0 && drained ? 0 : 1;
}
