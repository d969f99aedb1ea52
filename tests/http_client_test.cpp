#include "pelora/delivery/http_client.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "pelora/client/configuration.hpp"
#include "pelora/core/service_hosts.hpp"
#include "tests/support/https_server.hpp"

#include "tests/support/waiting.hpp"

namespace pelora {

// Reaches the shared response handler, which no transport outcome can drive to its
// no-response branch.
struct HTTPClientTestPeer {
  static void handleResponse(const std::optional<platform::HttpResponse>& response,
                             const std::optional<platform::HttpError>& error,
                             const HTTPCompletion& completion, const std::weak_ptr<LogSink>& log) {
    HTTPClient::handleResponse(response, error, completion, log, "f()", 1);
  }
};

namespace {

using test::closedPort;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::string_view uploadFunction = "startBatchUpload(writeKey:batch:completion:)";
constexpr std::string_view eventFunction =
    "trackingEventPayload(identityId:eventName:eventData:profile:completion:)";

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

// Results handed to completions, shared with them so a failed test cannot leave them dangling.
struct Results {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<HTTPResult> results;

  HTTPCompletion completion(const std::shared_ptr<Results>& self) {
    return [self](const HTTPResult& result) {
      std::lock_guard lock(self->mutex);
      self->results.push_back(result);
      self->changed.notify_all();
    };
  }
  // The first result, once it has arrived.
  std::optional<HTTPResult> wait(std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, timeout, [&] { return !results.empty(); })) return std::nullopt;
    return results.front();
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return results.size();
  }
};

std::pair<std::shared_ptr<Results>, HTTPCompletion> collector() {
  auto results = std::make_shared<Results>();
  return {results, results->completion(results)};
}

class HTTPClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    configuration->connectTo({server.connectTo(productionTrackingHost)})
        .caBundle(server.certificates().caFile);
  }
  void TearDown() override {
    log::setDebugEnabled(false);
    fs::remove_all(directory);
  }

  std::shared_ptr<HTTPClient> client() { return std::make_shared<HTTPClient>(configuration, log); }

  fs::path writeBatch(const std::string& contents) {
    fs::create_directories(directory);
    fs::path path = directory / ("batch-" + std::to_string(++batches));
    std::ofstream(path, std::ios::binary) << contents;
    return path;
  }

  // Uploads a small batch and returns its result.
  std::optional<HTTPResult> upload(HTTPClient& client) {
    auto [results, completion] = collector();
    client.startBatchUpload("WRITE_KEY", writeBatch("{}"), completion);
    return results->wait();
  }

  test::TestHttpsServer server;
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<Configuration> configuration =
      std::make_shared<Configuration>("WRITE_KEY", std::nullopt);
  fs::path directory =
      fs::temp_directory_path() / ("pelora-http-client-" + std::to_string(::getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
  int batches = 0;
};

TEST(HTTPClient, KeyAndHostFollowTheConfiguration) {
  struct Case {
    std::optional<std::string> flavor;
    std::string_view host;
  };
  for (const Case& c : {Case{std::nullopt, productionTrackingHost},
                        Case{"dev", developmentTrackingHost}, Case{"stg", stagingTrackingHost},
                        Case{"Dev", productionTrackingHost}, Case{"STG", productionTrackingHost},
                        Case{"devel", productionTrackingHost}, Case{"", productionTrackingHost}}) {
    SCOPED_TRACE(c.flavor.value_or("(none)"));
    auto configuration = std::make_shared<Configuration>("KEY", c.flavor);
    configuration->apiHost("configured.example.test");  // never consulted here
    HTTPClient client(configuration, {});
    EXPECT_EQ(client.apiHost(), c.host);
    EXPECT_EQ(client.apiKey(), "KEY");
  }
  auto configuration = std::make_shared<Configuration>("KEY", "dev");
  HTTPClient given(configuration, {}, "OTHER", "given.example.test");
  EXPECT_EQ(given.apiKey(), "OTHER");
  EXPECT_EQ(given.apiHost(), "given.example.test");
  HTTPClient bare(nullptr, {});
  EXPECT_EQ(bare.apiKey(), "");
  EXPECT_EQ(bare.apiHost(), productionTrackingHost);
}

TEST_F(HTTPClientTest, BatchUploadPostsTheFileToTheBatchEndpoint) {
  const std::string contents =
      R"({"batch":[{"type":"track","event":"Signed Up"}],"writeKey":"WRITE_KEY"})";
  auto [results, completion] = collector();
  auto task = client()->startBatchUpload("WRITE_KEY", writeBatch(contents), completion);
  ASSERT_NE(task, nullptr);
  auto result = results->wait();
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->succeeded());
  EXPECT_TRUE(std::get<bool>(result->value));
  EXPECT_TRUE(log->lines().empty());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/tracking-controller/b");
  EXPECT_EQ(request.header("Host"), productionTrackingHost);
  EXPECT_EQ(request.body, contents);
  EXPECT_EQ(request.header("Content-Length"), std::to_string(contents.size()));
  EXPECT_EQ(request.header("Content-Type"), "application/json; charset=utf-8");
  EXPECT_EQ(request.header("User-Agent"), "analytics-ios/1.0.0");
  for (const auto& [name, value] : request.headers) {
    EXPECT_EQ(value.find("WRITE_KEY"), std::string::npos) << name;  // the key is in the file only
  }
}

TEST_F(HTTPClientTest, StatusCodesBecomeResultsAndLogLines) {
  struct Case {
    int status;
    std::optional<std::string> message;
  };
  const std::vector<Case> cases = {
      {200, std::nullopt},
      {299, std::nullopt},
      {300, "Server responded with unexpected HTTP code 300."},
      {399, "Server responded with unexpected HTTP code 399."},
      {429, "Server limited client with response code 429."},
      {400, "Server rejected payload with HTTP code 400."},
      {430, "Server rejected payload with HTTP code 430."},
      {500, "Server rejected payload with HTTP code 500."},
      {503, "Server rejected payload with HTTP code 503."},
  };
  auto httpClient = client();
  std::size_t logged = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    server.enqueue("/tracking-controller/b", {.status = c.status});
    auto result = upload(*httpClient);
    ASSERT_TRUE(result);
    auto lines = log->lines();
    if (!c.message) {
      EXPECT_TRUE(result->succeeded());
      EXPECT_EQ(lines.size(), logged);
      continue;
    }
    ASSERT_TRUE(result->clientError());
    EXPECT_EQ(*result->clientError(), HTTPClientErrors::statusCode(c.status));
    ASSERT_EQ(lines.size(), ++logged);
    EXPECT_EQ(lines.back().message, *c.message);
    EXPECT_EQ(lines.back().function, uploadFunction);
    EXPECT_GT(lines.back().line, 0);
  }
}

TEST_F(HTTPClientTest, TransportErrorsAreLoggedAndPassedOn) {
  configuration->connectTo(
      {std::string(productionTrackingHost) + ":443:127.0.0.1:" + std::to_string(closedPort())});
  auto httpClient = client();
  auto refused = upload(*httpClient);
  ASSERT_TRUE(refused);
  ASSERT_TRUE(refused->transportError());
  EXPECT_EQ(refused->transportError()->code, platform::HttpError::Code::cannotConnect);

  auto [results, completion] = collector();
  httpClient->startBatchUpload("WRITE_KEY", directory / "missing", completion);
  auto missing = results->wait();
  ASSERT_TRUE(missing);
  ASSERT_TRUE(missing->transportError());
  EXPECT_EQ(missing->transportError()->code, platform::HttpError::Code::fileError);

  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message,
            "Error uploading request " + refused->transportError()->description + ".");
  EXPECT_EQ(lines[0].message.rfind("Error uploading request Could not connect to the server", 0),
            0u);
  EXPECT_EQ(lines[0].function, uploadFunction);
  EXPECT_EQ(lines[1].message,
            "Error uploading request " + missing->transportError()->description + ".");
}

TEST_F(HTTPClientTest, CompletionRunsWhenClientAndLogAreGone) {
  server.enqueue("/tracking-controller/b", {.status = 503, .delay = 100ms});
  auto [results, completion] = collector();
  auto httpClient = client();
  httpClient->startBatchUpload("WRITE_KEY", writeBatch("{}"), completion);
  ASSERT_TRUE(server.waitForRequests(1));
  std::weak_ptr<RecordingLog> watcher = log;
  log.reset();
  httpClient.reset();
  ASSERT_TRUE(watcher.expired());
  auto result = results->wait();
  ASSERT_TRUE(result);
  ASSERT_TRUE(result->clientError());
  EXPECT_EQ(result->clientError()->code(), 503);
}

TEST_F(HTTPClientTest, UnformableUploadURLFailsAtOnce) {
  HTTPClient httpClient(configuration, log, std::nullopt, "bad host");
  auto [results, completion] = collector();
  EXPECT_EQ(httpClient.startBatchUpload("WRITE_KEY", writeBatch("{}"), completion), nullptr);
  ASSERT_EQ(results->count(), 1u);  // before returning
  ASSERT_TRUE(results->results[0].clientError());
  EXPECT_EQ(*results->results[0].clientError(), HTTPClientErrors::failedToOpenBatch());
  EXPECT_STREQ(results->results[0].clientError()->what(), "failedToOpenBatch");
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(HTTPClientTest, TrackingEventPostsOneJSONObject) {
  using namespace std::chrono;
  auto millisecondsNow = [] {
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  };
  server.enqueue("/", {.status = 430});
  auto [results, completion] = collector();
  const auto before = millisecondsNow();
  client()->trackingEventPayload(JSON("identity-1"), "signup", JSON(JSON::Map{{"plan", "pro"}}),
                                 {JSON(1), JSON("two")}, completion);
  auto result = results->wait();
  const auto after = millisecondsNow();
  ASSERT_TRUE(result);
  ASSERT_TRUE(result->clientError());
  EXPECT_EQ(result->clientError()->code(), 430);
  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "Server rejected payload with HTTP code 430.");
  EXPECT_EQ(lines[0].function, eventFunction);

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/");
  EXPECT_EQ(request.header("Host"), productionTrackingHost);
  EXPECT_EQ(request.headerCount("Content-Type"), 1u);
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("User-Agent"), "analytics-ios/1.0.0");

  JSON body = JSON::parse(request.body);
  ASSERT_TRUE(body.mapPointer());
  std::vector<std::string> keys;
  for (const auto& [key, value] : *body.mapPointer()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"eventData", "event_date", "event_name", "identity_id",
                                            "profile", "workspace_id"}));
  EXPECT_EQ(body["workspace_id"], JSON("WRITE_KEY"));
  EXPECT_EQ(body["identity_id"], JSON("identity-1"));
  EXPECT_EQ(body["event_name"], JSON("signup"));
  EXPECT_EQ(body["eventData"], JSON(JSON::Map{{"plan", "pro"}}));
  EXPECT_EQ(body["profile"], JSON(JSON::List{JSON(1), JSON("two")}));
  auto date = body["event_date"]->decimalValue();
  ASSERT_TRUE(date);
  EXPECT_EQ(JSON(*date).toString().find_first_of(".eE"), std::string::npos);  // whole number
  auto milliseconds = body["event_date"]->intValue();
  EXPECT_GE(*milliseconds, before);
  EXPECT_LE(*milliseconds, after);
}

TEST_F(HTTPClientTest, TrackingEventDebugOutput) {
  log::setDebugEnabled(true);
  auto [results, completion] = collector();
  ::testing::internal::CaptureStdout();
  client()->trackingEventPayload(JSON("id"), "e", JSON(JSON::Map{}), {}, completion);
  std::string printed = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(results->wait());
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(printed, "trackingEvent Native SDK Payload\n" + server.requests()[0].body + "\n");
}

TEST_F(HTTPClientTest, EmptyHostSendsNothing) {
  HTTPClient blocked(configuration, log, std::nullopt, "");
  auto [results, completion] = collector();
  for (bool debug : {false, true}) {
    log::setDebugEnabled(debug);
    ::testing::internal::CaptureStdout();
    blocked.trackingEventPayload(JSON("id"), "e", JSON(JSON::Map{}), {}, completion);
    std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, debug ? "trackingEvent Native SDK Payload\n"
                               "--- Error : Pelora SDK isn't initialized ---\n"
                             : "");
  }
  log::setDebugEnabled(false);
  // Anything the blocked client had sent would reach the server before this one's answer.
  auto [sent, sentCompletion] = collector();
  client()->trackingEventPayload(JSON("id"), "e", JSON(JSON::Map{}), {}, sentCompletion);
  ASSERT_TRUE(sent->wait());
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(results->count(), 0u);
  EXPECT_TRUE(log->lines().empty());
}

TEST(HTTPClientResponses, HandlerEdgeCases) {
  auto log = std::make_shared<RecordingLog>();
  auto [results, completion] = collector();
  // Neither a response nor an error: nothing is logged and the completion never runs.
  HTTPClientTestPeer::handleResponse(std::nullopt, std::nullopt, completion, log);
  EXPECT_EQ(results->count(), 0u);
  EXPECT_TRUE(log->lines().empty());

  for (int status : {0, -1}) {
    HTTPClientTestPeer::handleResponse(platform::HttpResponse{status, {}, {}}, std::nullopt,
                                       completion, log);
  }
  HTTPClientTestPeer::handleResponse(platform::HttpResponse{1, {}, {}}, std::nullopt, completion,
                                     log);
  ASSERT_EQ(results->count(), 3u);
  EXPECT_EQ(results->results[0].clientError()->code(), 0);
  EXPECT_EQ(results->results[1].clientError()->code(), -1);
  EXPECT_TRUE(results->results[2].succeeded());
  auto lines = log->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "Server rejected payload with HTTP code 0.");
  EXPECT_EQ(lines[1].message, "Server rejected payload with HTTP code -1.");
  EXPECT_EQ(HTTPClientErrors::statusCode(503).what(), std::string("statusCode(code: 503)"));
}

TEST(HTTPClientCurl, RendersRequestsAsCommandLines) {
  platform::HttpRequest get;
  get.method = "GET";
  get.url = "https://example.test/a?b=1";
  EXPECT_EQ(cURL(get, false), "curl -X GET 'https://example.test/a?b=1' ");
  EXPECT_EQ(cURL(get, true), "curl --request GET \\\n--url 'https://example.test/a?b=1' \\\n");

  platform::HttpRequest post;
  post.method = "POST";
  post.url = "https://example.test/";
  post.headers = {{"Content-Type", "application/json"}, {"X-A", "1"}};
  post.body = R"({"k":"v"})";
  EXPECT_EQ(cURL(post, false),
            "curl -X POST 'https://example.test/' -H 'Content-Type: application/json' "
            "-H 'X-A: 1' --data '{\"k\":\"v\"}'");
  EXPECT_EQ(cURL(post, true),
            "curl --request POST \\\n"
            "--url 'https://example.test/' \\\n"
            "--header 'Content-Type: application/json' \\\n"
            "--header 'X-A: 1' \\\n"
            "--data '{\"k\":\"v\"}'");

  platform::HttpRequest bare;
  bare.method = "";
  bare.body = "\xff\xfe";  // not UTF-8: left out
  EXPECT_EQ(cURL(bare, false), "curl -X POST '' ");
}

}  // namespace
}  // namespace pelora
