// The opt-in network options end to end: gzip-compressed batch uploads (the service receives the
// batch file's exact bytes; a host killed mid-upload keeps the batch) and a proxy that carries
// tracking, identity posts, message pulls and open notifications, named in the configuration or
// in the environment.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/messages/iam_full_screen_view_controller.hpp"
#include "pelora/pelora.hpp"
#include "pelora/platform/http_session.hpp"
#include "tests/support/connect_proxy.hpp"
#include "tests/support/iam.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"
#include "tools/collector/collector.hpp"
#include "tools/collector/https_server.hpp"

extern char** environ;

namespace pelora {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using collector::HttpsServer;
using collector::RecordedRequest;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

const std::string kTrackingHost(productionTrackingHost);

std::string contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A client of `key` keeping its files in `data` and trusting `caFile`; only explicit flushes
// upload.
std::shared_ptr<Configuration> configurationFor(const std::string& key,
                                                const test::TempDirectory& data,
                                                const std::string& caFile, bool enableIAM = false) {
  auto configuration = std::make_shared<Configuration>(key, std::nullopt, enableIAM);
  configuration->flushAt(1'000'000)
      .flushInterval(3600)
      .paths({data.path() / "Documents", data.path() / "config"})
      .caBundle(caFile);
  return configuration;
}

// Events with text that compresses as real properties do: repeated keys, similar values.
void recordSome(PeloraAnalytics& analytics, int count) {
  for (int i = 0; i < count; ++i) {
    analytics.trackBash("Product Viewed",
                        Dictionary{{"sku", "SKU-" + std::to_string(1000 + i)},
                                   {"category", std::string("Shoes / Running / Trail")},
                                   {"price", 129.95},
                                   {"seq", static_cast<std::int64_t>(i)}});
  }
}

// The service sees the batch file's bytes exactly, compressed on the wire when asked and only
// then; the file on disk stays plain JSON.
TEST(CompressedUploads, TheServiceReceivesTheBatchFileExactlyAndFewerBytesWhenCompressed) {
  for (const bool compress : {true, false}) {
    SCOPED_TRACE(compress ? "compressed" : "plain");
    test::TempDirectory data;
    HttpsServer service;
    const fs::path directory = data.path() / "Documents/pelora/gzip-key";
    // Read while the upload waits for its answer: the finished file is still there.
    std::mutex mutex;
    std::vector<std::string> filesDuringUpload;
    service.setResponder([&](const RecordedRequest&) -> std::optional<collector::ScriptedResponse> {
      std::lock_guard lock(mutex);
      for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().extension() == ".temp") filesDuringUpload.push_back(contents(entry));
      }
      return std::nullopt;
    });
    auto configuration = configurationFor("gzip-key", data, service.certificates().caFile);
    configuration->compressBatches(compress).connectTo({service.connectTo(kTrackingHost)});
    auto analytics = PeloraAnalytics::create(configuration);
    recordSome(*analytics, 200);
    ASSERT_TRUE(analytics->flush(Clock::now() + 10s));

    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), 1u);
    const RecordedRequest& upload = requests[0];
    std::lock_guard lock(mutex);
    ASSERT_EQ(filesDuringUpload.size(), 1u);
    EXPECT_EQ(upload.body, filesDuringUpload[0]);
    EXPECT_EQ(filesDuringUpload[0].front(), '{');  // the file itself is not compressed
    if (compress) {
      EXPECT_EQ(upload.header("Content-Encoding"), "gzip");
      EXPECT_EQ(upload.header("Transfer-Encoding"), "chunked");
      EXPECT_FALSE(upload.header("Content-Length"));
      EXPECT_LT(upload.receivedBytes, upload.body.size() / 4) << upload.body.size();
    } else {
      EXPECT_FALSE(upload.header("Content-Encoding"));
      EXPECT_EQ(upload.header("Content-Length"), std::to_string(upload.body.size()));
      EXPECT_GT(upload.receivedBytes, upload.body.size());
    }
  }
}

// A host killed while its compressed upload waits for the answer keeps the batch; the next run
// sends it (the service may then see it twice, which its message ids tell apart).
TEST(CompressedUploads, AHostKilledMidUploadKeepsTheBatchAndTheNextRunSendsIt) {
  test::TempDirectory data;
  Collector service;
  service.delayAnswers(60s);
  const std::vector<std::string> arguments = {PELORA_CRASH_HOST,
                                              "--data",
                                              data.path().string(),
                                              "--run",
                                              "gz",
                                              "--events",
                                              "40",
                                              "--compress",
                                              "1",
                                              "--connect-to",
                                              service.connectTo(productionTrackingHost),
                                              "--ca-file",
                                              service.certificates().caFile};
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t host = -1;
  ASSERT_EQ(posix_spawn(&host, PELORA_CRASH_HOST, &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  // The collector has the first batch (it counts it before its held answer goes out).
  const bool uploading = service.waitFor([](const auto& c) { return c.batches >= 1; }, 30s);
  ::kill(host, SIGKILL);
  int status = 0;
  ::waitpid(host, &status, 0);
  ASSERT_TRUE(uploading);
  EXPECT_GE(service.counts().compressedBatches, 1u);

  service.delayAnswers(0ms);
  auto configuration = configurationFor("crash-key", data, service.certificates().caFile);
  configuration->compressBatches(true).connectTo({service.connectTo(kTrackingHost)});
  auto analytics = PeloraAnalytics::create(configuration);
  const auto before = service.counts();
  ASSERT_TRUE(analytics->flush(Clock::now() + 30s));
  const auto after = service.counts();
  EXPECT_GT(after.batches, before.batches);  // the batch the killed host was sending came again
  EXPECT_EQ(after.compressedBatches - before.compressedBatches, after.batches - before.batches);
  EXPECT_EQ(after.rejected, 0u);
  std::set<std::string> firstRun;
  for (const auto& event : service.events()) {
    firstRun.insert(event.properties->value<std::string>("id").value_or("?"));
  }
  // Every event of the batch that was in flight, the first one among them, arrived.
  EXPECT_TRUE(firstRun.count("gz-0"));
}

// A client whose every request goes through `proxy` (or the environment's, when `proxy` is
// empty) to `service` under the real host names: no connect-to entry, so nothing arrives unless
// the proxy carried it. Sends a batch and an identity post, and pulls until a message comes. Its
// open notification, a link the service handed out, follows only through the host's own proxy: an
// environment's proxy on this machine is an address such a link may not lead to.
void exerciseThroughProxy(const std::string& proxy, Collector& service,
                          const test::TempDirectory& data) {
  const std::size_t opens = proxy.empty() ? 0 : 1;
  const std::string opened =
      "\"actionOpen\":\"https://" + test::iamHost() + "/iam/opened/proxied\"";
  service.queueInAppMessage(test::iamData(opened));
  test::ManualHeadless screen;
  auto configuration = configurationFor("proxy-key", data, service.certificates().caFile, true);
  if (!proxy.empty()) configuration->proxy(proxy);
  auto analytics = PeloraAnalytics::create(configuration);
  analytics->trackBash("Through the proxy");
  analytics->trackEvent(Dictionary{{"email", std::string("p@example.com")}}, "login", Dictionary{});
  EXPECT_TRUE(analytics->flush(Clock::now() + 10s));
  EXPECT_TRUE(service.waitFor(
      [&](const auto& c) {
        return c.batches == 1 && c.trackingEvents == 1 && c.inAppMessages == 1 && c.opened == opens;
      },
      20s))
      << service.summary();
  // Closed, so that the message manager (one per process) is free for the next message.
  if (auto shown = std::dynamic_pointer_cast<IAMFullScreenViewController>(screen.top())) {
    platform::SerialQueue::main()->sync(
        [&] { shown->webView->navigate(std::string("pelora://exit")); });
    platform::SerialQueue::main()->sync([] {});
    screen.application->advance(1s);
  }
  analytics->shutdown(Clock::now() + 5s);
  EXPECT_EQ(service.counts().opened, opens);
}

TEST(Proxy, TrackingPostsPullsAndOpenNotificationsAllGoThroughTheConfiguredProxy) {
  test::TempDirectory data;
  Collector service;
  service.holdPulls(200ms);
  test::ConnectProxy proxy(service.port());
  exerciseThroughProxy(proxy.url(), service, data);
  const auto tunnels = proxy.tunnels();
  // Batches and identity posts go over sessions of their own, pulls and notifications over one.
  EXPECT_GE(tunnels.count(kTrackingHost + ":443") ? tunnels.at(kTrackingHost + ":443") : 0, 2);
  EXPECT_GE(tunnels.count(test::iamHost() + ":443") ? tunnels.at(test::iamHost() + ":443") : 0, 1);
  EXPECT_EQ(tunnels.size(), 2u);
  EXPECT_GT(proxy.bytesUp(), 1000u);
  EXPECT_EQ(proxy.refused(), 0);
}

TEST(Proxy, WithoutTheSettingHttpsProxyInTheEnvironmentCarriesTrackingPostsAndPulls) {
  test::TempDirectory data;
  Collector service;
  service.holdPulls(200ms);
  test::ConnectProxy proxy(service.port());
  ::setenv("https_proxy", proxy.url().c_str(), 1);
  exerciseThroughProxy("", service, data);
  ::unsetenv("https_proxy");
  const auto tunnels = proxy.tunnels();
  EXPECT_TRUE(tunnels.count(kTrackingHost + ":443")) << tunnels.size();
  EXPECT_TRUE(tunnels.count(test::iamHost() + ":443")) << tunnels.size();
}

// Behind a proxy the connected address is the proxy's (here this machine): a link the service
// hands out may still go through it, unless it names a local address by itself.
TEST(Proxy, ServiceGivenLinksThroughAProxyMayNotNameALocalAddress) {
  Collector service;
  test::ConnectProxy proxy(service.port());
  platform::HttpSessionOptions options;
  options.proxy = proxy.url();
  options.caBundle = service.certificates().caFile;
  options.resourceTimeout = 10s;
  auto session = platform::HttpSession::create(options);
  auto get = [&](const std::string& url) {
    platform::HttpRequest request;
    request.purpose = platform::HttpPurpose::link;
    request.url = url;
    std::promise<std::optional<platform::HttpError>> done;
    session
        ->dataTask(request,
                   [&](const auto&, const std::optional<platform::HttpError>& error) {
                     done.set_value(error);
                   })
        ->resume();
    return done.get_future().get();
  };
  EXPECT_FALSE(get("https://" + test::iamHost() + "/iam/opened/fine"));
  // Plain http goes to the proxy as "GET http://...", which it refuses (and counts): a request
  // stopped here never reaches it.
  for (const std::string local : {"http://127.0.0.1:1/x", "http://localhost/x", "http://[::1]/x",
                                  "http://10.0.0.1/x", "http://a.localhost/x"}) {
    const auto error = get(local);
    ASSERT_TRUE(error) << local;
    EXPECT_EQ(error->code, platform::HttpError::Code::cannotConnect) << local;
  }
  EXPECT_EQ(proxy.refused(), 0);
  EXPECT_EQ(service.counts().opened, 1u);
}

}  // namespace
}  // namespace pelora
