// Builds against an installed libpelora through the umbrella header only, as a host would: a
// client records (its service unreachable), shuts down, is destroyed, and leaves no thread of the
// library behind. Prints 42 when all of that held.
#include <dirent.h>
#include <stdlib.h>

#include <pelora/pelora.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

namespace {

int libraryThreads() {
  int count = 0;
  if (DIR* tasks = opendir("/proc/self/task")) {
    while (const dirent* entry = readdir(tasks)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
      std::string name;
      std::getline(comm, name);
      count += name.rfind("pelora-", 0) == 0;
    }
    closedir(tasks);
  }
  return count;
}

int fail(const std::string& why) {
  std::cout << "consumer: " << why << '\n';
  return 1;
}

}  // namespace

int main() {
  using namespace std::chrono_literals;
  char directory[] = "/tmp/pelora-consumer.XXXXXX";
  if (mkdtemp(directory) == nullptr) return fail("no temporary directory");
  const std::string data = directory;

  std::mutex linesMutex;  // the handler runs on whichever library thread logs
  std::string lines;
  pelora::PeloraAnalytics::setLogHandler([&](pelora::LogLevel, std::string_view line) {
    std::lock_guard lock(linesMutex);
    lines.append(line).append("\n");
  });
  auto configuration = std::make_shared<pelora::Configuration>("consumer-key", std::nullopt, false);
  // Port 1 on the loopback refuses at once: uploads fail without leaving the machine.
  configuration->paths({data + "/data", data + "/config"})
      .connectTo({"tracking.pelora.io:443:127.0.0.1:1"});
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  analytics->identify("user-1", pelora::Dictionary{{"plan", std::string("pro")}});
  analytics->trackBash("Installed",
                       pelora::Dictionary{{"price", pelora::Decimal::parse("9.90").value()},
                                          {"tags", pelora::Array{std::string("a")}}});
  if (!analytics->find<pelora::PeloraDestination>()) return fail("no upload destination");

  if (analytics->shutdown(300ms)) return fail("shutdown says an unreachable service got the event");
  if (!analytics->hasUnsentEvents()) return fail("the event was not kept on disk");
  std::weak_ptr<pelora::PeloraAnalytics> weak = analytics;
  analytics.reset();
  if (!weak.expired()) return fail("the client outlived its last reference");
  if (const int left = libraryThreads(); left != 0) {
    return fail(std::to_string(left) + " library threads left");
  }
  pelora::PeloraAnalytics::setLogHandler(nullptr);
  std::filesystem::remove_all(data);
  if (lines.find("need peloraAppPushID") == std::string::npos) return fail("log handler missed");
  std::cout << pelora::Decimal(42).toString() << '\n';
  return 0;
}
