// Quickstart: a host program that records a few events and an identity-tracking event, flushes,
// and exits once the tracking service has everything. Against the local collector:
//
//   quickstart --connect-to tracking.pelora.io:443:127.0.0.1:8443 --ca-file <collector's ca.pem>
//
// Exit status: 0 when everything was delivered, 1 when something was still waiting at the deadline.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include <pelora/pelora.hpp>

namespace {

constexpr const char* usage = R"(usage: quickstart [options]
  --connect-to ENTRY  reroute a host, HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT (repeatable)
  --ca-file FILE      trust this CA bundle for HTTPS
  --data DIR          keep batch files and identity under DIR (default: the user's directories)
  --delivery-policy   back off from a failing service, honour Retry-After, split batches answered
                      413 (waits capped at 5 s so that a run stays short)
  --compress          upload batches gzip-compressed
  --proxy URL         send every request through this proxy (http://host:port)
  --verbose           print the library's debug log
)";

[[noreturn]] void fail(const std::string& message) {
  std::cerr << "quickstart: " << message << "\n" << usage;
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace std::chrono;
  std::vector<std::string> connectTo;
  std::string caFile;
  std::string dataDirectory;
  constexpr int productViews = 23;
  constexpr int timeoutSeconds = 60;
  bool verbose = false;
  bool deliveryPolicy = false;
  bool compress = false;
  std::string proxy;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "-h" || option == "--help") {
      std::cout << usage;
      return 0;
    }
    if (option == "--verbose") {
      verbose = true;
      continue;
    }
    if (option == "--delivery-policy") {
      deliveryPolicy = true;
      continue;
    }
    if (option == "--compress") {
      compress = true;
      continue;
    }
    if (i + 1 >= argc) fail(std::string(option) + " needs a value");
    const std::string value = argv[++i];
    if (option == "--connect-to") {
      connectTo.push_back(value);
    } else if (option == "--ca-file") {
      caFile = value;
    } else if (option == "--data") {
      dataDirectory = value;
    } else if (option == "--proxy") {
      proxy = value;
    } else {
      fail("unknown option " + std::string(option));
    }
  }

  // Production flavor, no in-app messages: an upload every 10 events and a timed one every second,
  // which also resends any batch the service turned away.
  auto configuration =
      std::make_shared<pelora::Configuration>("quickstart-write-key", "production", false);
  configuration->flushAt(10).flushInterval(1.0).connectTo(connectTo).caBundle(caFile);
  configuration->compressBatches(compress);
  try {
    configuration->proxy(proxy);
  } catch (const std::invalid_argument& error) {
    fail(error.what());
  }
  if (!dataDirectory.empty()) {
    configuration->paths({dataDirectory + "/data", dataDirectory + "/config"});
  }
  if (deliveryPolicy) {
    pelora::DeliveryPolicy policy;
    policy.maxBackoff = seconds(5);
    configuration->deliveryPolicy(policy);
  }
  if (verbose) pelora::PeloraAnalytics::setDebugLogsEnabled(true);

  auto analytics = pelora::PeloraAnalytics::create(configuration);
  if (verbose) {
    analytics->add(std::make_shared<pelora::PeloraLog>(
        pelora::LogFilterKind::debug, pelora::PluginType::before,
        pelora::PeloraLog::TargetTable{
            {pelora::LoggingType::log, {std::make_shared<pelora::ConsoleTarget>()}}}));
  }
  std::cout << "quickstart: client ready, anonymous id " << analytics->anonymousId() << "\n";

  analytics->trackBash("App Opened", pelora::Dictionary{{"from_background", false}});
  for (int i = 0; i < productViews; ++i) {
    analytics->trackBash("Product Viewed",
                         pelora::Dictionary{{"sku", "RJ-" + std::to_string(2041 + i)},
                                            {"price", pelora::Decimal::parse("129.95").value()},
                                            {"position", i + 1}});
  }
  analytics->trackBash("Order Completed",
                       pelora::Dictionary{{"order_id", std::string("A-1001")},
                                          {"total", pelora::Decimal::parse("259.90").value()},
                                          {"currency", std::string("EUR")}});
  analytics->trackEvent(pelora::Dictionary{{"email", std::string("ada@example.com")}}, "login",
                        pelora::Dictionary{{"method", std::string("password")}},
                        std::vector<pelora::Dictionary>{{{"name", std::string("Ada")}}});
  std::cout << "quickstart: recorded " << productViews + 2
            << " events and 1 identity-tracking event; flushing\n";

  // Uploads every batch (again, when the service turned one away) and waits for the identity
  // post; then shutdown stops the client's timers and threads before the process ends.
  const auto start = steady_clock::now();
  if (!analytics->flush(start + seconds(timeoutSeconds))) {
    auto waiting = analytics->pendingUploads();
    std::cout << "quickstart: gave up after " << timeoutSeconds << " s with "
              << (waiting ? waiting->size() : 0) << " batch files still waiting\n";
    return 1;
  }
  std::cout << "quickstart: everything delivered in "
            << duration_cast<milliseconds>(steady_clock::now() - start).count() << " ms\n";
  analytics->shutdown(seconds(5));
  return 0;
}
