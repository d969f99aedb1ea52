// What the in-app message tests share: messages as the service sends them, a headless toolkit on a
// manual clock installed for the test, and reading what the main queue has on screen.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "pelora/core/service_hosts.hpp"
#include "pelora/messages/iam_manager.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/ui.hpp"
#include "tools/collector/collector.hpp"

namespace pelora::test {

// An IAMData JSON text: `fields` (the text of its other members, may be empty) and a message
// whose HTML is `html`.
inline std::string iamData(const std::string& fields, const std::string& html = "<p>Hi</p>") {
  const std::string message =
      JSON(JSON::Map{{"htmlContent", JSON(html)}, {"jsonContent", JSON(JSON::Map{})}}).toString();
  return "{" + fields + (fields.empty() ? "" : ",") + "\"message\":" + toString(message) + "}";
}

// The collector's host for in-app messages, for a connect-to entry.
inline std::string iamHost() {
  const std::string url(productionIAMBaseURL);
  return url.substr(url.find("://") + 3);
}

// Installs a headless toolkit whose timers run on a manual clock, for one test.
struct ManualHeadless {
  std::shared_ptr<platform::ui::HeadlessApplication> application =
      std::make_shared<platform::ui::HeadlessApplication>();
  ManualHeadless() {
    application->useManualClock();
    platform::ui::Application::install(application);
  }
  // The controller on screen, read on the main queue.
  std::shared_ptr<platform::ui::ViewController> top() const {
    return platform::SerialQueue::main()->sync([&] { return application->topViewController(); });
  }
};

// A manager setup that pulls from `collector`.
inline IAMManager::Setup setupFor(const collector::Collector& collector,
                                  const std::string& workspace = "iam-key",
                                  const std::string& user = "DEVICE-1") {
  IAMManager::Setup setup;
  setup.hostDomain = std::string(productionIAMBaseURL);
  setup.workSpaceId = workspace;
  setup.peloraUserId = user;
  setup.connectTo = {collector.connectTo(iamHost())};
  setup.caBundle = collector.certificates().caFile;
  return setup;
}

// Threads of this process named `name` (the HTTP sessions' workers are "pelora-http").
inline int threadsNamed(const std::string& name) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(entry.path() / "comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  return count;
}

}  // namespace pelora::test
