#include "pelora/platform/http_session.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "pelora/core/service_hosts.hpp"
#include "tests/support/https_server.hpp"

#include "tests/support/waiting.hpp"

namespace pelora::platform {
namespace {

using test::closedPort;
using test::eventually;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string trackingHost(productionTrackingHost);
const std::string trackingURL = "https://" + trackingHost;

// What one task's completion saw; shared with the completion so a failed test cannot leave it
// dangling.
struct Outcome {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
  std::thread::id thread;

  bool wait(std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return calls > 0; });
  }
  int callCount() {
    std::lock_guard lock(mutex);
    return calls;
  }
};

HttpCompletion record(const std::shared_ptr<Outcome>& outcome) {
  return [outcome](const std::optional<HttpResponse>& response,
                   const std::optional<HttpError>& error) {
    std::lock_guard lock(outcome->mutex);
    ++outcome->calls;
    outcome->response = response;
    outcome->error = error;
    outcome->thread = std::this_thread::get_id();
    outcome->changed.notify_all();
  };
}

HttpRequest get(const std::string& path) {
  HttpRequest request;
  request.url = trackingURL + path;
  return request;
}

// Runs a GET through `session` and waits for it: completions come in order, so anything the
// session owed before it has been delivered once this returns.
void drain(HttpSession& session) {
  auto outcome = std::make_shared<Outcome>();
  session.dataTask(get("/drain"), record(outcome))->resume();
  ASSERT_TRUE(outcome->wait());
}

std::size_t threadCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) ++count;
  return count;
}

class HttpSessionTest : public ::testing::Test {
 protected:
  HttpSessionOptions options() const {
    HttpSessionOptions options;
    options.connectTo = {server.connectTo(trackingHost)};
    options.caBundle = server.certificates().caFile;
    return options;
  }

  fs::path writeFile(const std::string& name, const std::string& contents) {
    fs::create_directories(directory);
    fs::path path = directory / name;
    std::ofstream(path, std::ios::binary) << contents;
    return path;
  }

  void TearDown() override { fs::remove_all(directory); }

  test::TestHttpsServer server;
  fs::path directory =
      fs::temp_directory_path() / ("pelora-http-session-" + std::to_string(::getpid()) + "-" +
                                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(HttpSessionTest, ReachesTheProductionHostOverVerifiedTLS) {
  server.enqueue("/v1/ping", {.status = 201, .body = "pong", .headers = {{"X-Reply", "yes"}}});
  auto sessionOptions = options();
  sessionOptions.headers = {{"User-Agent", "agent/1"}, {"Content-Type", "application/json"}};
  auto session = HttpSession::create(sessionOptions);

  HttpRequest request = get("/v1/ping?x=1");
  request.headers = {{"content-type", "text/plain"}, {"X-Extra", "1"}};
  auto outcome = std::make_shared<Outcome>();
  auto task = session->dataTask(request, record(outcome));
  EXPECT_EQ(task->state(), HttpTask::State::suspended);
  task->resume();
  ASSERT_TRUE(outcome->wait());
  EXPECT_EQ(task->state(), HttpTask::State::completed);

  ASSERT_TRUE(outcome->response) << outcome->error->description;
  EXPECT_FALSE(outcome->error);
  EXPECT_EQ(outcome->response->status, 201);
  EXPECT_EQ(outcome->response->body, "pong");
  EXPECT_EQ(outcome->response->header("x-reply"), "yes");
  EXPECT_NE(outcome->thread, std::this_thread::get_id());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].target, "/v1/ping?x=1");
  EXPECT_EQ(requests[0].header("Host"), trackingHost);
  EXPECT_EQ(requests[0].header("User-Agent"), "agent/1");
  // The request's own field replaces the session's, whatever its letter case.
  EXPECT_EQ(requests[0].headerCount("Content-Type"), 1u);
  EXPECT_EQ(requests[0].header("Content-Type"), "text/plain");
  EXPECT_EQ(requests[0].header("X-Extra"), "1");
}

TEST_F(HttpSessionTest, SendsBodiesWithTheRequestedMethod) {
  auto session = HttpSession::create(options());
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (const char* method : {"POST", "PUT", "DELETE"}) {
    HttpRequest request = get(std::string("/") + method);
    request.method = method;
    if (request.method != "DELETE") request.body = std::string("{\"m\":\"") + method + "\"}";
    outcomes.push_back(std::make_shared<Outcome>());
    session->dataTask(request, record(outcomes.back()))->resume();
  }
  for (auto& outcome : outcomes) ASSERT_TRUE(outcome->wait());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& request : requests) {
    SCOPED_TRACE(request.path);
    EXPECT_EQ("/" + request.method, request.path);
    EXPECT_FALSE(request.header("Expect"));
    if (request.method == "DELETE") {
      EXPECT_EQ(request.body, "");
    } else {
      EXPECT_EQ(request.body, "{\"m\":\"" + request.method + "\"}");
      EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
      EXPECT_EQ(request.header("Content-Type"), "application/octet-stream");
    }
  }
}

TEST_F(HttpSessionTest, UploadStreamsTheFileWithContentLength) {
  std::string contents(2 * 1024 * 1024 + 7, '\0');
  std::mt19937 random(7);
  for (char& byte : contents) byte = static_cast<char>(random());
  auto big = writeFile("big.bin", contents);
  auto empty = writeFile("empty.bin", "");

  auto sessionOptions = options();
  sessionOptions.headers = {{"Content-Type", "application/json; charset=utf-8"}};
  auto session = HttpSession::create(sessionOptions);
  HttpRequest request = get("/upload");
  request.method = "POST";
  request.body = "ignored";
  auto bigOutcome = std::make_shared<Outcome>();
  auto emptyOutcome = std::make_shared<Outcome>();
  auto missingOutcome = std::make_shared<Outcome>();
  session->uploadTask(request, big.string(), record(bigOutcome))->resume();
  session->uploadTask(request, empty.string(), record(emptyOutcome))->resume();
  session->uploadTask(request, (directory / "missing").string(), record(missingOutcome))->resume();
  for (auto& outcome : {bigOutcome, emptyOutcome, missingOutcome}) ASSERT_TRUE(outcome->wait());

  ASSERT_TRUE(missingOutcome->error);
  EXPECT_EQ(missingOutcome->error->code, HttpError::Code::fileError);
  ASSERT_TRUE(bigOutcome->response);
  ASSERT_TRUE(emptyOutcome->response);

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& received : requests) {
    bool isBig = received.body.size() > 0;
    SCOPED_TRACE(isBig ? "big" : "empty");
    EXPECT_EQ(received.method, "POST");
    EXPECT_TRUE(received.body == (isBig ? contents : std::string()));
    EXPECT_EQ(received.header("Content-Length"), std::to_string(isBig ? contents.size() : 0));
    EXPECT_FALSE(received.header("Transfer-Encoding"));
    // Not waiting for 100-continue: curl would otherwise hold a body over 1 MiB for a second.
    EXPECT_FALSE(received.header("Expect"));
    EXPECT_EQ(received.header("Content-Type"), "application/json; charset=utf-8");
  }
}

TEST_F(HttpSessionTest, TransportFailuresReachTheCompletion) {
  server.enqueue("/drop", {.dropConnection = true});
  auto refusedOptions = options();
  refusedOptions.connectTo = {trackingHost + ":443:127.0.0.1:" + std::to_string(closedPort())};
  auto untrustedOptions = options();
  untrustedOptions.caBundle.clear();  // the system's authorities do not know the test one

  struct Case {
    const char* name;
    HttpSessionOptions options;
    std::string path;
    HttpError::Code code;
  };
  std::vector<Case> cases = {
      {"refused", refusedOptions, "/", HttpError::Code::cannotConnect},
      {"untrusted", untrustedOptions, "/", HttpError::Code::tlsFailure},
      {"dropped", options(), "/drop", HttpError::Code::connectionLost},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto session = HttpSession::create(c.options);
    auto outcome = std::make_shared<Outcome>();
    session->dataTask(get(c.path), record(outcome))->resume();
    ASSERT_TRUE(outcome->wait());
    EXPECT_FALSE(outcome->response);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code, c.code) << outcome->error->description;
    EXPECT_NE(outcome->error->curlCode, 0);
    EXPECT_FALSE(outcome->error->description.empty());
    EXPECT_NE(outcome->error->description.back(), '.');
  }
}

TEST_F(HttpSessionTest, TimeoutsEndTransfersAsTimedOut) {
  server.setDefaultResponse({.delay = 20s});
  auto wholeOptions = options();
  wholeOptions.resourceTimeout = 300ms;
  auto idleOptions = options();
  idleOptions.requestTimeout = 300ms;
  HttpRequest shortRequest = get("/slow");
  shortRequest.timeout = 300ms;

  auto start = std::chrono::steady_clock::now();
  auto wholeSession = HttpSession::create(wholeOptions);
  auto idleSession = HttpSession::create(idleOptions);
  auto plainSession = HttpSession::create(options());
  std::vector<std::shared_ptr<Outcome>> outcomes(3);
  for (auto& outcome : outcomes) outcome = std::make_shared<Outcome>();
  wholeSession->dataTask(get("/slow"), record(outcomes[0]))->resume();
  idleSession->dataTask(get("/slow"), record(outcomes[1]))->resume();
  plainSession->dataTask(shortRequest, record(outcomes[2]))->resume();
  for (auto& outcome : outcomes) {
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code, HttpError::Code::timedOut) << outcome->error->description;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(HttpSessionTest, CancelCompletesOnceWithCancelled) {
  server.enqueue("/slow", {.delay = 20s});
  auto session = HttpSession::create(options());

  auto running = std::make_shared<Outcome>();
  auto runningTask = session->dataTask(get("/slow"), record(running));
  runningTask->resume();
  ASSERT_TRUE(server.waitForRequests(1));
  runningTask->cancel();
  runningTask->cancel();
  ASSERT_TRUE(running->wait());

  auto suspended = std::make_shared<Outcome>();
  auto suspendedTask = session->dataTask(get("/never"), record(suspended));
  suspendedTask->cancel();
  ASSERT_TRUE(suspended->wait());
  suspendedTask->resume();

  auto finished = std::make_shared<Outcome>();
  auto finishedTask = session->dataTask(get("/quick"), record(finished));
  finishedTask->resume();
  ASSERT_TRUE(finished->wait());
  finishedTask->cancel();

  drain(*session);
  for (auto& outcome : {running, suspended}) {
    EXPECT_EQ(outcome->callCount(), 1);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code, HttpError::Code::cancelled);
    EXPECT_EQ(outcome->error->description, "cancelled");
  }
  EXPECT_EQ(finished->callCount(), 1);
  EXPECT_TRUE(finished->response);
  for (auto& task : {runningTask, suspendedTask, finishedTask}) {
    EXPECT_EQ(task->state(), HttpTask::State::completed);
  }
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& request : requests) EXPECT_NE(request.path, "/never");
}

TEST_F(HttpSessionTest, AtMostTwoConnectionsPerHost) {
  server.setDefaultResponse({.body = "{}", .delay = 300ms});
  auto sessionOptions = options();
  sessionOptions.maxConnectionsPerHost = 2;
  auto session = HttpSession::create(sessionOptions);
  auto file = writeFile("batch.json", R"({"batch":[]})");

  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 6; ++i) {
    HttpRequest request = get("/batch/" + std::to_string(i));
    request.method = "POST";
    outcomes.push_back(std::make_shared<Outcome>());
    session->uploadTask(request, file.string(), record(outcomes.back()))->resume();
  }
  for (auto& outcome : outcomes) {
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->response) << outcome->error->description;
    EXPECT_EQ(outcome->response->status, 200);
  }
  EXPECT_EQ(server.requestCount(), 6u);
  EXPECT_EQ(server.maxConcurrentRequests(), 2);
  EXPECT_LE(server.maxConcurrentConnections(), 2);
}

TEST_F(HttpSessionTest, DroppedSessionStillCompletesItsTasks) {
  server.setDefaultResponse({.body = "late", .delay = 200ms});
  auto session = HttpSession::create(options());
  auto first = std::make_shared<Outcome>();
  auto second = std::make_shared<Outcome>();
  session->dataTask(get("/1"), record(first))->resume();
  auto kept = session->dataTask(get("/2"), record(second));
  kept->resume();
  session.reset();
  for (auto& outcome : {first, second}) {
    ASSERT_TRUE(outcome->wait());
    ASSERT_TRUE(outcome->response);
    EXPECT_EQ(outcome->response->body, "late");
  }
}

TEST_F(HttpSessionTest, WorkerThreadsEndWithTheirSessions) {
  const std::size_t baseline = threadCount();
  auto idle = HttpSession::create(options());
  EXPECT_EQ(threadCount(), baseline);  // no task, no thread
  idle.reset();

  for (int i = 0; i < 8; ++i) {
    auto session = HttpSession::create(options());
    auto outcome = std::make_shared<Outcome>();
    session->dataTask(get("/"), record(outcome))->resume();
    ASSERT_TRUE(outcome->wait());
  }
  // Worker threads end, and closing their connections ends the server's connection threads.
  EXPECT_TRUE(eventually([&] { return threadCount() <= baseline; }))
      << threadCount() << " threads, " << baseline << " before";
}

// A test server in a child process of its own, so that exit() in this process races with
// nothing but the code under test. It dies with this process.
struct ForkedServer {
  int port = 0;
  int requests = -1;  // one byte arrives per request received
};

ForkedServer forkServer(std::chrono::milliseconds delay) {
  int portPipe[2];
  int requestPipe[2];
  if (::pipe(portPipe) != 0 || ::pipe(requestPipe) != 0) std::_Exit(2);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) std::_Exit(2);
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) std::_Exit(0);
    test::TestHttpsServer server;
    server.setDefaultResponse({.delay = delay});
    server.setResponder([fd = requestPipe[1]](const test::RecordedRequest&) {
      char byte = 1;
      [[maybe_unused]] auto written = ::write(fd, &byte, 1);
      return std::optional<test::ScriptedResponse>();
    });
    int port = server.port();
    if (::write(portPipe[1], &port, sizeof port) != sizeof port) std::_Exit(2);
    for (;;) ::pause();
  }
  ForkedServer server;
  if (::read(portPipe[0], &server.port, sizeof server.port) != sizeof server.port) std::_Exit(2);
  server.requests = requestPipe[0];
  return server;
}

bool awaitRequest(const ForkedServer& server) {
  pollfd ready{server.requests, POLLIN, 0};
  char byte = 0;
  return ::poll(&ready, 1, 10000) == 1 && ::read(server.requests, &byte, 1) == 1;
}

TEST(HttpSessionDeathTest, ExitWithATransferInFlightExitsPromptly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        ForkedServer server = forkServer(60s);
        HttpSessionOptions options;
        options.connectTo = {trackingHost + ":443:127.0.0.1:" + std::to_string(server.port)};
        options.caBundle = test::TestCertificates::builtIn().caFile;
        auto session = HttpSession::create(options);
        session->dataTask(get("/slow"), nullptr)->resume();
        if (!awaitRequest(server)) std::_Exit(1);
        // A second transfer busy with TLS while exit() tears the process down.
        auto file = fs::temp_directory_path() / ("pelora-exit-" + std::to_string(::getpid()));
        std::ofstream(file, std::ios::binary) << std::string(8 << 20, 'x');
        HttpRequest upload = get("/upload");
        upload.method = "POST";
        session->uploadTask(upload, file.string(), nullptr)->resume();
        fs::remove(file);  // the open descriptor keeps the bytes
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), "");
  // The server would answer after a minute; exit() must not wait for that or for the worker.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

TEST(HttpURL, FormedAndCheckedByCurl) {
  EXPECT_EQ(httpsURL(trackingHost, "/tracking-controller/b"),
            "https://" + trackingHost + "/tracking-controller/b");
  EXPECT_EQ(httpsURL("example.test", ""), "https://example.test/");
  EXPECT_EQ(httpsURL("localhost:8443", "/b"), "https://localhost:8443/b");
  for (const char* host : {"", "bad host", "user@example.test", "example.test/x", "example.test?q",
                           "example.test#f"}) {
    EXPECT_FALSE(httpsURL(host, "/b")) << host;
  }

  EXPECT_EQ(normalizedURL("https://example.test/a/../b?x=1"), "https://example.test/b?x=1");
  EXPECT_FALSE(normalizedURL("ftp://example.test/"));
  EXPECT_FALSE(normalizedURL("example.test/no-scheme"));

  EXPECT_EQ(percentEncoded("a b/\xC3\xBC~-._"), "a%20b%2F%C3%BC~-._");
}

}  // namespace
}  // namespace pelora::platform
