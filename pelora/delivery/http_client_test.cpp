#include "pelora/delivery/http_client.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "pelora/core/service_hosts.hpp"
#include "pelora/core/version.hpp"
#include "pelora/platform/logging.hpp"
#include "pelora/state/configuration.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using platform::HttpError;
using test::Calls;
using test::closedPort;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kHost(productionTrackingHost);
constexpr std::string_view uploadFunction = "startBatchUpload(writeKey:batch:completion:)";
constexpr std::string_view eventFunction =
    "trackingEventPayload(identityId:eventName:eventData:profile:completion:)";

std::pair<std::shared_ptr<Calls<HTTPResult>>, HTTPCompletion> clientCompletion() {
  auto calls = std::make_shared<Calls<HTTPResult>>();
  return {calls, [calls](const HTTPResult& result) { calls->add(result); }};
}

struct LogLine {
  std::string message;
  std::optional<LogFilterKind> kind;
  std::string function;
  int line;
};

class RecordingLog : public LogSink {
 public:
  void log(std::string_view message, std::optional<LogFilterKind> kind, std::string_view function,
           int line) override {
    std::lock_guard lock(mutex_);
    lines_.push_back({std::string(message), kind, std::string(function), line});
  }
  std::vector<LogLine> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<LogLine> lines_;
};

class HTTPClientTest : public ::testing::Test {
 protected:
  fs::path writeFile(const std::string& name, const std::string& contents) {
    std::ofstream(dir.path() / name, std::ios::binary) << contents;
    return dir.path() / name;
  }
  void SetUp() override {
    configuration->connectTo({server.connectTo(kHost)}).caBundle(server.certificates().caFile);
  }
  void TearDown() override { platform::log::setDebugEnabled(false); }

  std::shared_ptr<HTTPClient> client() { return std::make_shared<HTTPClient>(configuration, log); }

  // Uploads a small batch and returns its result.
  std::optional<HTTPResult> upload(HTTPClient& client) {
    auto [results, completion] = clientCompletion();
    client.startBatchUpload(writeFile("batch", "{}"), completion);
    return results->wait();
  }
  // Posts a tracking event and returns what was printed.
  std::string postEvent(HTTPClient& client, const HTTPCompletion& completion) {
    ::testing::internal::CaptureStdout();
    client.trackingEventPayload(JSON("id"), "e", JSON(JSON::Map{}), {}, completion);
    return ::testing::internal::GetCapturedStdout();
  }

  test::TempDirectory dir{"pelora-http-client"};
  test::TestHttpsServer server;
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<Configuration> configuration =
      std::make_shared<Configuration>("WRITE_KEY", std::nullopt);
};

// The host comes from the flavor, never from the configured API host.
TEST(HTTPClient, KeyAndHostFollowTheConfiguration) {
  auto configuration = std::make_shared<Configuration>("KEY", "dev");
  configuration->apiHost("configured.example.test");
  HTTPClient client(configuration, {});
  EXPECT_EQ(client.apiHost(), developmentTrackingHost);
  EXPECT_EQ(client.apiKey(), "KEY");
  HTTPClient bare(nullptr, {});
  EXPECT_EQ(bare.apiKey(), "");
  EXPECT_EQ(bare.apiHost(), productionTrackingHost);
}

TEST_F(HTTPClientTest, BatchUploadPostsTheFileToTheBatchEndpoint) {
  const std::string contents =
      R"({"batch":[{"type":"track","event":"Signed Up"}],"writeKey":"WRITE_KEY"})";
  auto [results, completion] = clientCompletion();
  ASSERT_NE(client()->startBatchUpload(writeFile("batch", contents), completion), nullptr);
  auto result = results->wait();
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->succeeded());
  EXPECT_TRUE(std::get<bool>(result->value));
  EXPECT_TRUE(log->lines().empty());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& received = requests[0];
  EXPECT_EQ(received.method, "POST");
  EXPECT_EQ(received.target, "/tracking-controller/b");
  EXPECT_EQ(received.header("Host"), productionTrackingHost);
  EXPECT_EQ(received.body, contents);
  EXPECT_EQ(received.header("Content-Length"), std::to_string(contents.size()));
  EXPECT_EQ(received.header("Content-Type"), "application/json; charset=utf-8");
  EXPECT_EQ(received.header("User-Agent"), "analytics-ios/" + std::string(libraryVersion));
  for (const auto& [name, value] : received.headers) {
    EXPECT_EQ(value.find("WRITE_KEY"), std::string::npos) << name;  // the key is in the file only
  }
}

TEST_F(HTTPClientTest, StatusCodesBecomeResultsAndLogLines) {
  using Case = std::pair<int, std::optional<std::string>>;
  auto httpClient = client();
  std::size_t logged = 0;
  for (const auto& [status, message] :
       {Case{299, std::nullopt}, Case{300, "Server responded with unexpected HTTP code 300."},
        Case{429, "Server limited client with response code 429."},
        Case{400, "Server rejected payload with HTTP code 400."},
        Case{503, "Server rejected payload with HTTP code 503."}}) {
    SCOPED_TRACE(status);
    server.enqueue("/tracking-controller/b", {.status = status});
    auto result = upload(*httpClient);
    ASSERT_TRUE(result);
    auto lines = log->lines();
    if (!message) {
      EXPECT_TRUE(result->succeeded());
      EXPECT_EQ(lines.size(), logged);
      continue;
    }
    ASSERT_TRUE(result->clientError());
    EXPECT_EQ(*result->clientError(), HTTPClientErrors::statusCode(status));
    ASSERT_EQ(lines.size(), ++logged);
    EXPECT_EQ(lines.back().message, *message);
    EXPECT_EQ(lines.back().function, uploadFunction);
    EXPECT_GT(lines.back().line, 0);
  }
  EXPECT_EQ(HTTPClientErrors::statusCode(503).what(), std::string("statusCode(code: 503)"));
}

TEST_F(HTTPClientTest, TransportErrorsAreLoggedAndPassedOn) {
  configuration->connectTo({kHost + ":443:127.0.0.1:" + std::to_string(closedPort())});
  auto refused = upload(*client());
  ASSERT_TRUE(refused && refused->transportError());
  EXPECT_EQ(refused->transportError()->code, HttpError::Code::cannotConnect);

  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message,
            "Error uploading request " + refused->transportError()->description + ".");
  EXPECT_EQ(lines[0].message.rfind("Error uploading request Could not connect to the server", 0),
            0u);
  EXPECT_EQ(lines[0].function, uploadFunction);
}

TEST_F(HTTPClientTest, CompletionRunsWhenClientAndLogAreGone) {
  server.enqueue("/tracking-controller/b", {.status = 503, .delay = 100ms});
  auto [results, completion] = clientCompletion();
  auto httpClient = client();
  httpClient->startBatchUpload(writeFile("batch", "{}"), completion);
  ASSERT_TRUE(server.waitForRequests(1));
  std::weak_ptr<RecordingLog> watcher = log;
  log.reset();
  httpClient.reset();
  ASSERT_TRUE(watcher.expired());
  auto result = results->wait();
  ASSERT_TRUE(result && result->clientError());
  EXPECT_EQ(result->clientError()->code(), 503);
}

TEST_F(HTTPClientTest, UnformableUploadURLFailsAtOnce) {
  HTTPClient httpClient(configuration, log, std::nullopt, "bad host");
  auto [results, completion] = clientCompletion();
  EXPECT_EQ(httpClient.startBatchUpload(writeFile("batch", "{}"), completion), nullptr);
  ASSERT_EQ(results->count(), 1u);  // before returning
  ASSERT_TRUE(results->results[0].clientError());
  EXPECT_EQ(*results->results[0].clientError(), HTTPClientErrors::failedToOpenBatch());
  EXPECT_STREQ(results->results[0].clientError()->what(), "failedToOpenBatch");
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(HTTPClientTest, TrackingEventPostsOneJSONObject) {
  server.enqueue("/", {.status = 430});
  auto [results, completion] = clientCompletion();
  client()->trackingEventPayload(JSON("identity-1"), "signup", JSON(JSON::Map{{"plan", "pro"}}),
                                 {JSON(1), JSON("two")}, completion);
  auto result = results->wait();
  ASSERT_TRUE(result && result->clientError());
  EXPECT_EQ(result->clientError()->code(), 430);
  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "Server rejected payload with HTTP code 430.");
  EXPECT_EQ(lines[0].function, eventFunction);

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& received = requests[0];
  EXPECT_EQ(received.target, "/");
  EXPECT_EQ(received.headerCount("Content-Type"), 1u);
  EXPECT_EQ(received.header("Content-Type"), "application/json");

  JSON body = JSON::parse(received.body);
  EXPECT_EQ(body.remove("event_date"),
            JSON::parse(R"({"eventData":{"plan":"pro"},"event_name":"signup",)"
                        R"("identity_id":"identity-1","profile":[1,"two"],)"
                        R"("workspace_id":"WRITE_KEY"})"));
  auto date = body["event_date"];
  ASSERT_TRUE(date && date->decimalValue());
  EXPECT_EQ(date->toString().find_first_of(".eE"), std::string::npos);  // whole milliseconds
  EXPECT_GT(*date->intValue(), 1'700'000'000'000);  // milliseconds since 1970, not seconds
}

TEST_F(HTTPClientTest, TrackingEventDebugOutputAndEmptyHost) {
  platform::log::setDebugEnabled(true);
  auto [results, completion] = clientCompletion();
  std::string printed = postEvent(*client(), completion);
  ASSERT_TRUE(results->wait());
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(printed, "trackingEvent Native SDK Payload\n" + server.requests()[0].body + "\n");

  // An empty host sends nothing, calls no completion and logs nothing.
  HTTPClient blocked(configuration, log, std::nullopt, "");
  auto [blockedResults, blockedCompletion] = clientCompletion();
  for (bool debug : {false, true}) {
    platform::log::setDebugEnabled(debug);
    EXPECT_EQ(postEvent(blocked, blockedCompletion),
              debug ? "trackingEvent Native SDK Payload\n"
                      "--- Error : Pelora SDK isn't initialized ---\n"
                    : "");
  }
  // Anything the blocked client had sent would reach the server before this one's answer.
  auto [sent, sentCompletion] = clientCompletion();
  postEvent(*client(), sentCompletion);
  ASSERT_TRUE(sent->wait());
  EXPECT_EQ(server.requestCount(), 2u);
  EXPECT_EQ(blockedResults->count(), 0u);
  EXPECT_TRUE(log->lines().empty());
}

}  // namespace
}  // namespace pelora
