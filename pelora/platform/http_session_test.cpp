// The HTTPS session on libcurl and the HTTP client above it, against the in-process HTTPS server.
#include "pelora/platform/http_session.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "pelora/core/service_hosts.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"

namespace pelora {

namespace {

using platform::HttpError;
using platform::HttpRequest;
using platform::HttpResponse;
using platform::HttpSession;
using platform::HttpSessionOptions;
using platform::HttpTask;
using test::Calls;
using test::closedPort;

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kHost(productionTrackingHost);

// What one session task's completion saw.
struct Outcome {
  std::optional<HttpResponse> response;
  std::optional<HttpError> error;
};
using Outcomes = std::shared_ptr<Calls<Outcome>>;

std::pair<Outcomes, platform::HttpCompletion> sessionCompletion() {
  auto calls = std::make_shared<Calls<Outcome>>();
  return {calls, [calls](const std::optional<HttpResponse>& response,
                         const std::optional<HttpError>& error) {
            calls->add({response, error});
          }};
}

HttpRequest request(const std::string& path, const std::string& method = "GET") {
  HttpRequest request;
  request.method = method;
  request.url = "https://" + kHost + path;
  return request;
}

HttpSessionOptions optionsFor(const std::string& connectTo) {
  HttpSessionOptions options;
  options.connectTo = {connectTo};
  options.caBundle = test::TestCertificates::builtIn().caFile;
  return options;
}

// Starts `request` on `session` (as an upload of `file` when given).
Outcomes start(HttpSession& session, const HttpRequest& request,
               std::optional<fs::path> file = std::nullopt) {
  auto [outcomes, completion] = sessionCompletion();
  auto task = file ? session.uploadTask(request, file->string(), completion)
                   : session.dataTask(request, completion);
  task->resume();
  return outcomes;
}

Outcome await(const Outcomes& outcomes) {
  auto outcome = outcomes->wait();
  EXPECT_TRUE(outcome) << "no completion";
  return outcome.value_or(Outcome{});
}

std::size_t threadCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) ++count;
  return count;
}

// A TCP server on 127.0.0.1 that answers one connection with `reply` (not HTTP) and closes it.
class RawReplyServer {
 public:
  explicit RawReplyServer(std::string reply) : reply_(std::move(reply)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 1);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      char buffer[4096];
      (void)::recv(connection, buffer, sizeof buffer, 0);
      (void)::send(connection, reply_.data(), reply_.size(), MSG_NOSIGNAL);
      ::close(connection);
    });
  }
  ~RawReplyServer() {
    ::shutdown(listener_, SHUT_RDWR);  // ends an accept() that nothing reached
    thread_.join();
    ::close(listener_);
  }
  int port() const { return port_; }

 private:
  std::string reply_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

class HttpSessionTest : public ::testing::Test {
 protected:
  HttpSessionOptions options() const { return optionsFor(server.connectTo(kHost)); }
  fs::path writeFile(const std::string& name, const std::string& contents) {
    std::ofstream(dir.path() / name, std::ios::binary) << contents;
    return dir.path() / name;
  }

  test::TempDirectory dir{"pelora-http"};
  test::TestHttpsServer server;
};

TEST_F(HttpSessionTest, StreamsFilesWithContentLength) {
  std::string contents(2 * 1024 * 1024 + 7, '\0');
  std::mt19937 random(7);
  for (char& byte : contents) byte = static_cast<char>(random());
  HttpRequest upload = request("/upload", "POST");
  upload.body = "ignored";  // an upload sends its file
  auto session = HttpSession::create(options());
  EXPECT_TRUE(await(start(*session, upload, writeFile("big.bin", contents))).response);
  auto missing = await(start(*session, upload, dir.path() / "missing")).error;
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->code, HttpError::Code::fileError);

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].body == contents);
  EXPECT_EQ(requests[0].header("Content-Length"), std::to_string(contents.size()));
  EXPECT_FALSE(requests[0].header("Transfer-Encoding"));
  // Not waiting for 100-continue: curl would otherwise hold a body over 1 MiB for a second.
  EXPECT_FALSE(requests[0].header("Expect"));
}

TEST_F(HttpSessionTest, TransportFailuresAndTimeoutsReachTheCompletion) {
  server.setDefaultResponse({.delay = 20s});
  server.enqueue("/drop", {.dropConnection = true});
  auto refused = optionsFor(kHost + ":443:127.0.0.1:" + std::to_string(closedPort()));
  auto untrusted = options();
  untrusted.caBundle.clear();  // the system's authorities do not know the test one
  auto whole = options();
  whole.resourceTimeout = 300ms;
  auto idle = options();
  idle.requestTimeout = 300ms;
  HttpRequest shortRequest = request("/slow");
  shortRequest.timeout = 300ms;
  struct Case {
    const char* name;
    HttpSessionOptions options;
    HttpRequest request;
    HttpError::Code code;
  };
  const auto begin = std::chrono::steady_clock::now();
  for (auto& c : {Case{"refused", refused, request("/"), HttpError::Code::cannotConnect},
                  Case{"untrusted", untrusted, request("/"), HttpError::Code::tlsFailure},
                  Case{"dropped", options(), request("/drop"), HttpError::Code::connectionLost},
                  Case{"resource timeout", whole, request("/slow"), HttpError::Code::timedOut},
                  Case{"request timeout", idle, request("/slow"), HttpError::Code::timedOut},
                  Case{"own timeout", options(), shortRequest, HttpError::Code::timedOut}}) {
    SCOPED_TRACE(c.name);
    Outcome outcome = await(start(*HttpSession::create(c.options), c.request));
    EXPECT_FALSE(outcome.response);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, c.code) << outcome.error->description;
    EXPECT_NE(outcome.error->curlCode, 0);
    EXPECT_FALSE(outcome.error->description.empty());
    EXPECT_NE(outcome.error->description.back(), '.');
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);

  // Something that is not an HTTP server answers: the error says so, not that the URL is bad.
  RawReplyServer notHttp("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n");
  HttpRequest plain;
  plain.purpose = platform::HttpPurpose::link;  // the only purpose that may go over plain http
  plain.url = "http://not-http.test/";
  // A name the host itself sends to this machine (a link may not lead there on its own).
  HttpSessionOptions rerouted;
  rerouted.connectTo = {"not-http.test:80:127.0.0.1:" + std::to_string(notHttp.port())};
  Outcome outcome = await(start(*HttpSession::create(rerouted), plain));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, HttpError::Code::badServerResponse) << outcome.error->description;
  EXPECT_EQ(outcome.error->description.rfind("The server's reply was not HTTP", 0), 0u)
      << outcome.error->description;
}

TEST_F(HttpSessionTest, CancelCompletesOnceWithCancelled) {
  server.enqueue("/slow", {.delay = 20s});
  auto session = HttpSession::create(options());
  auto [running, completion] = sessionCompletion();
  auto task = session->dataTask(request("/slow"), completion);
  task->resume();
  ASSERT_TRUE(server.waitForRequests(1));
  task->cancel();
  task->cancel();
  // Completions come in order: anything owed before this one has been delivered.
  await(start(*session, request("/drain")));
  ASSERT_EQ(running->count(), 1u);
  ASSERT_TRUE(running->results[0].error);
  EXPECT_EQ(running->results[0].error->code, HttpError::Code::cancelled);
  EXPECT_EQ(running->results[0].error->description, "cancelled");
  EXPECT_EQ(task->state(), HttpTask::State::completed);
}

// The per-host cap from the options, then the session's own limit of 16 transfers handed to curl
// at once (the rest wait without a handle or an open file, and can be cancelled there).
TEST_F(HttpSessionTest, ConcurrentTransfersStayWithinTheCaps) {
  server.setDefaultResponse({.body = "{}", .delay = 200ms});
  auto file = writeFile("batch.json", R"({"batch":[]})");
  // Up to 16 at once with no per-host cap; at least 3 shows that more than two went out.
  for (auto [perHost, count, least, most] : {std::tuple{2, 8, 2, 2}, std::tuple{0, 40, 3, 16}}) {
    auto sessionOptions = options();
    sessionOptions.maxConnectionsPerHost = perHost;
    auto session = HttpSession::create(sessionOptions);
    std::vector<Outcomes> outcomes;
    for (int i = 0; i < count; ++i) {
      outcomes.push_back(start(*session, request("/batch/" + std::to_string(i), "POST"), file));
    }
    auto [cancelled, completion] = sessionCompletion();
    auto waiting = session->uploadTask(request("/waiting", "POST"), file.string(), completion);
    waiting->resume();
    waiting->cancel();
    EXPECT_EQ(await(cancelled).error->code, HttpError::Code::cancelled);
    for (auto& outcome : outcomes) EXPECT_EQ(await(outcome).response->status, 200);
    EXPECT_GE(server.maxConcurrentRequests(), least);
    EXPECT_LE(server.maxConcurrentRequests(), most);
  }
  EXPECT_EQ(server.requestCount(), 48u);  // the cancelled ones never went out
}

TEST_F(HttpSessionTest, WorkerThreadsEndWithTheirSessions) {
  const std::size_t baseline = threadCount();
  auto idle = HttpSession::create(options());
  EXPECT_EQ(threadCount(), baseline);  // no task, no thread
  idle.reset();
  for (int i = 0; i < 8; ++i) await(start(*HttpSession::create(options()), request("/")));
  // Worker threads end, and closing their connections ends the server's connection threads.
  EXPECT_TRUE(test::eventually([&] { return threadCount() <= baseline; }))
      << threadCount() << " threads, " << baseline << " before";

  // A session dropped right after cancelling its last transfer (over a kept-alive connection):
  // its worker ends at once, not after its next long wait.
  server.enqueue("/held", {.delay = 20s});
  auto session = HttpSession::create(options());
  await(start(*session, request("/")));
  auto [held, completion] = sessionCompletion();
  auto task = session->dataTask(request("/held"), completion);
  task->resume();
  ASSERT_TRUE(server.waitForRequests(10));
  task->cancel();
  session.reset();
  EXPECT_EQ(await(held).error->code, HttpError::Code::cancelled);
  EXPECT_TRUE(test::eventually([&] { return threadCount() <= baseline + 1; }, 5s))
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
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        ForkedServer server = forkServer(60s);
        auto session = HttpSession::create(
            optionsFor(kHost + ":443:127.0.0.1:" + std::to_string(server.port)));
        session->dataTask(request("/slow"), nullptr)->resume();
        if (!awaitRequest(server)) std::_Exit(1);
        // A second transfer busy with TLS while exit() tears the process down.
        auto file = fs::temp_directory_path() / ("pelora-exit-" + std::to_string(::getpid()));
        std::ofstream(file, std::ios::binary) << std::string(8 << 20, 'x');
        session->uploadTask(request("/upload", "POST"), file.string(), nullptr)->resume();
        fs::remove(file);  // the open descriptor keeps the bytes
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), "");
  // The server would answer after a minute; exit() must not wait for that or for the worker.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
}

TEST(HttpURL, FormedAndCheckedByCurl) {
  using platform::httpsURL;
  EXPECT_EQ(httpsURL("example.test", ""), "https://example.test/");
  EXPECT_EQ(httpsURL("localhost:8443", "/b"), "https://localhost:8443/b");
  for (const char* host : {"", "bad host", "user@example.test", "example.test/x"}) {
    EXPECT_FALSE(httpsURL(host, "/b")) << host;
  }
  EXPECT_EQ(platform::normalizedURL("https://example.test/a/../b?x=1"),
            "https://example.test/b?x=1");
  EXPECT_FALSE(platform::normalizedURL("ftp://example.test/"));
  EXPECT_EQ(platform::percentEncoded("a b/\xC3\xBC~-._"), "a%20b%2F%C3%BC~-._");
}

TEST(HttpCurl, RendersRequestsAsCommandLines) {
  HttpRequest get;
  get.url = "https://example.test/a?b=1";
  EXPECT_EQ(platform::cURL(get, false), "curl -X GET 'https://example.test/a?b=1' ");

  HttpRequest post = get;
  post.method = "POST";
  post.headers = {{"X-A", "1"}};
  post.body = R"({"k":"v"})";
  EXPECT_EQ(platform::cURL(post, true),
            "curl --request POST \\\n--url 'https://example.test/a?b=1' \\\n"
            "--header 'X-A: 1' \\\n--data '{\"k\":\"v\"}'");

  // An empty method reads as POST; a body that is not UTF-8 is left out.
  HttpRequest bare;
  bare.method = "";
  bare.body = "\xff\xfe";
  EXPECT_EQ(platform::cURL(bare, false), "curl -X POST '' ");
}

}  // namespace
}  // namespace pelora
