// The collector's ways of turning requests away (statuses in turn, large batches, refused write
// keys, Retry-After), over real HTTPS: in-process through its API, and as the program the demo and
// outside checks start with flags.
#include "tools/collector/collector.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pelora/core/service_hosts.hpp"
#include "pelora/platform/http_session.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using collector::Collector;
using platform::HttpResponse;
using namespace std::chrono_literals;

const std::string kHost(productionTrackingHost);

// Sends to a collector under the production host name over verified TLS, one request at a time.
class Sender {
 public:
  explicit Sender(const std::string& connectTo) {
    platform::HttpSessionOptions options;
    options.connectTo = {connectTo};
    options.caBundle = collector::Certificates::builtIn().caFile;
    options.resourceTimeout = 10s;
    session_ = platform::HttpSession::create(options);
  }

  // The answer; status 0 (and a failed expectation) when none came.
  HttpResponse send(std::string_view method, std::string_view path, const std::string& body) {
    platform::HttpRequest request;
    request.method = method;
    request.url = "https://" + kHost + std::string(path);
    request.headers = {{"Content-Type", "application/json"}};
    request.body = body;
    auto answered = std::make_shared<std::promise<HttpResponse>>();
    auto future = answered->get_future();
    session_
        ->dataTask(
            request,
            [answered](const std::optional<HttpResponse>& response,
                       const std::optional<platform::HttpError>& error) {
              answered->set_value(response ? *response : HttpResponse{0, {}, error->description});
            })
        ->resume();
    HttpResponse response = future.get();
    EXPECT_NE(response.status, 0) << method << " " << path << ": " << response.body;
    return response;
  }

  HttpResponse batch(const std::string& writeKey, int events) {
    static int nextId = 0;  // distinct message ids across the tests
    JSON::List list;
    for (int i = 0; i < events; ++i) {
      list.push_back(JSON(JSON::Map{{"type", "track"},
                                    {"event", "Step"},
                                    {"messageId", "m-" + std::to_string(nextId++)},
                                    {"anonymousId", "a"},
                                    {"timestamp", "2024-05-01T10:00:00.000Z"}}));
    }
    const JSON body(JSON::Map{{"batch", JSON(std::move(list))},
                              {"sentAt", "2024-05-01T10:00:01.000Z"},
                              {"writeKey", writeKey}});
    return send("POST", Collector::batchPath, body.toString());
  }

  HttpResponse trackingEvent() {
    return send("POST", Collector::trackingEventPath,
                R"({"workspace_id":"w","identity_id":{"id":"u"},"event_name":"Opened",)"
                R"("event_date":1714557600000,"profile":[],"eventData":{}})");
  }

 private:
  std::shared_ptr<platform::HttpSession> session_;
};

std::size_t retryAfterFields(const HttpResponse& response) {
  return std::count_if(response.headers.begin(), response.headers.end(), [](const auto& field) {
    return strcasecmp(field.first.c_str(), "Retry-After") == 0;
  });
}

using ByStatus = std::map<int, std::size_t>;

class CollectorFaults : public ::testing::Test {
 protected:
  Collector collector;
  Sender sender{collector.connectTo(kHost)};
};

TEST_F(CollectorFaults, StatusesInTurnAnswerOneTrackingPostEachThenNormalOnes) {
  collector.answerInTurn({429, 202, 413, 500});
  EXPECT_EQ(sender.batch("k", 1).status, 429);
  EXPECT_EQ(sender.trackingEvent().status, 200);  // a 2xx turn is handled as usual
  EXPECT_EQ(sender.batch("k", 1).status, 413);
  // Only POSTs to the tracking endpoints take a turn: this GET is judged as usual.
  EXPECT_EQ(sender.send("GET", Collector::trackingEventPath, "").status, 400);
  EXPECT_EQ(sender.batch("k", 2).status, 500);
  EXPECT_EQ(sender.batch("k", 2).status, 200);
  auto counts = collector.counts();
  EXPECT_EQ(counts.batches, 1u);
  EXPECT_EQ(counts.events, 2u);
  EXPECT_EQ(counts.trackingEvents, 1u);
  EXPECT_EQ(counts.rejected, 1u);
  EXPECT_EQ(counts.failed, 3u);
  EXPECT_EQ(counts.failedByStatus, (ByStatus{{413, 1}, {429, 1}, {500, 1}}));

  // failNext goes first without using up a turn; recover() ends what is left of the turns.
  collector.failNext(503, 1);
  collector.answerInTurn({503, 429, 429});
  EXPECT_EQ(sender.batch("k", 1).status, 503);
  EXPECT_EQ(sender.batch("k", 1).status, 503);
  EXPECT_EQ(sender.batch("k", 1).status, 429);
  collector.recover();
  EXPECT_EQ(sender.batch("k", 1).status, 200);
  EXPECT_EQ(collector.counts().failedByStatus, (ByStatus{{413, 1}, {429, 2}, {500, 1}, {503, 2}}));
  EXPECT_EQ(collector.summary(),
            "2 batches, 3 events (3 distinct), 1 tracking event, "
            "6 failed (1 with 413, 2 with 429, 1 with 500, 2 with 503), 1 rejected");
}

TEST_F(CollectorFaults, BatchesOverTheLimitAreTurnedAwayWholeAndSmallerOnesKept) {
  collector.rejectBatchesLargerThan(2);
  EXPECT_EQ(sender.batch("k", 3).status, 413);
  EXPECT_EQ(sender.batch("k", 2).status, 200);
  EXPECT_EQ(sender.batch("k", 1).status, 200);
  EXPECT_EQ(sender.trackingEvent().status, 200);
  auto counts = collector.counts();
  EXPECT_EQ(counts.batches, 2u);
  EXPECT_EQ(counts.distinctEvents, 3u);
  EXPECT_EQ(collector.events().size(), 3u);
  EXPECT_EQ(counts.failedByStatus, (ByStatus{{413, 1}}));

  // Another status counts as turned away, not as a malformed body.
  collector.rejectBatchesLargerThan(1, 400);
  EXPECT_EQ(sender.batch("k", 2).status, 400);
  EXPECT_EQ(collector.counts().rejected, 0u);
  EXPECT_EQ(collector.counts().failedByStatus, (ByStatus{{400, 1}, {413, 1}}));

  collector.rejectBatchesLargerThan(0);
  EXPECT_EQ(sender.batch("k", 3).status, 200);
  collector.rejectBatchesLargerThan(1);
  collector.recover();
  EXPECT_EQ(sender.batch("k", 3).status, 200);
  EXPECT_EQ(collector.counts().events, 9u);
}

TEST_F(CollectorFaults, ARefusedWriteKeyIsTurnedAwayEveryTimeUntilRecover) {
  collector.refuseWriteKey("revoked", 401);
  collector.refuseWriteKey("forbidden", 403);
  collector.rejectBatchesLargerThan(1);
  EXPECT_EQ(sender.batch("revoked", 1).status, 401);
  EXPECT_EQ(sender.batch("revoked", 1).status, 401);
  EXPECT_EQ(sender.batch("forbidden", 3).status, 403);  // the key is judged before the size
  EXPECT_EQ(sender.batch("good", 1).status, 200);
  EXPECT_EQ(sender.trackingEvent().status, 200);  // carries no write key
  auto counts = collector.counts();
  EXPECT_EQ(counts.batches, 1u);
  EXPECT_EQ(counts.events, 1u);
  EXPECT_EQ(counts.failedByStatus, (ByStatus{{401, 2}, {403, 1}}));

  collector.recover();
  EXPECT_EQ(sender.batch("revoked", 1).status, 200);
  EXPECT_EQ(sender.batch("forbidden", 3).status, 200);
  EXPECT_EQ(collector.counts().events, 5u);
}

TEST_F(CollectorFaults, RetryAfterArrivesAsGivenOnEveryAnswerTurnedAwayAndOnNoOther) {
  const std::string date = "Wed, 21 Oct 2026 07:28:00 GMT";
  collector.retryAfter(date);
  collector.failNext(503, 1);
  auto response = sender.batch("k", 1);
  EXPECT_EQ(response.status, 503);
  EXPECT_EQ(response.header("Retry-After"), date);

  collector.retryAfter("3");
  collector.answerInTurn({429});
  collector.rejectBatchesLargerThan(1);
  collector.refuseWriteKey("revoked", 403);
  for (const auto& [answer, status] :
       {std::pair{sender.trackingEvent(), 429}, std::pair{sender.batch("k", 2), 413},
        std::pair{sender.batch("revoked", 1), 403}}) {
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.header("Retry-After"), "3") << status;
    EXPECT_EQ(retryAfterFields(answer), 1u) << status;
  }
  // Accepted and malformed requests are not turned away on purpose.
  EXPECT_EQ(retryAfterFields(sender.batch("k", 1)), 0u);
  auto malformed = sender.send("POST", Collector::batchPath, "{}");
  EXPECT_EQ(malformed.status, 400);
  EXPECT_EQ(retryAfterFields(malformed), 0u);

  collector.failFor(500, 1h);
  EXPECT_EQ(sender.batch("k", 1).header("Retry-After"), "3");
  collector.recover();  // drops the header too
  collector.failNext(503, 1);
  EXPECT_EQ(retryAfterFields(sender.batch("k", 1)), 0u);

  collector.retryAfter("5");
  collector.retryAfter("");
  collector.failNext(503, 1);
  EXPECT_EQ(retryAfterFields(sender.batch("k", 1)), 0u);
  EXPECT_THROW(collector.retryAfter("3\r\nSet-Cookie: x"), std::invalid_argument);
}

// The program, started as the demo and outside checks start it; exits with its status.
struct Program {
  pid_t pid = -1;

  Program(std::vector<std::string> arguments, const std::filesystem::path& output) {
    arguments.insert(arguments.begin(), PELORA_COLLECTOR_PROGRAM);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid, PELORA_COLLECTOR_PROGRAM, &actions, nullptr, argv.data(), environ) != 0) {
      pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Program() {
    if (pid > 0) stop(SIGKILL);
  }
  // The exit status, or -1 when it did not exit by itself.
  int stop(int signal = 0) {
    if (signal) ::kill(pid, signal);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(CollectorProgram, FlagsTurnRequestsAwayAndTheSummaryCountsThemByStatus) {
  test::TempDirectory directory;
  const auto ready = directory.path() / "connect-to";
  const auto output = directory.path() / "output";
  Program program(
      {"--port", "0", "--ready-file", ready.string(), "--quiet", "--fail-sequence", "429,200",
       "--max-batch-events", "2", "--refuse-key", "revoked:401", "--retry-after", "7"},
      output);
  ASSERT_GT(program.pid, 0);
  ASSERT_TRUE(test::eventually([&] { return std::filesystem::exists(ready); }, 20s))
      << contents(output);
  std::string connectTo = contents(ready);
  connectTo.erase(connectTo.find_last_not_of('\n') + 1);
  Sender sender(connectTo);

  auto first = sender.batch("k", 1);
  EXPECT_EQ(first.status, 429);
  EXPECT_EQ(first.header("Retry-After"), "7");
  EXPECT_EQ(sender.batch("k", 1).status, 200);
  auto large = sender.batch("k", 3);
  EXPECT_EQ(large.status, 413);
  EXPECT_EQ(large.header("Retry-After"), "7");
  EXPECT_EQ(sender.batch("revoked", 1).status, 401);
  auto accepted = sender.batch("k", 2);
  EXPECT_EQ(accepted.status, 200);
  EXPECT_EQ(retryAfterFields(accepted), 0u);

  EXPECT_EQ(program.stop(SIGTERM), 0);
  EXPECT_NE(contents(output).find("received 2 batches, 3 events (3 distinct), 0 tracking events, "
                                  "3 failed (1 with 401, 1 with 413, 1 with 429), 0 rejected"),
            std::string::npos)
      << contents(output);
}

TEST(CollectorProgram, MalformedFlagValuesStopItAtOnce) {
  test::TempDirectory directory;
  for (const auto& [option, value] :
       std::vector<std::pair<std::string, std::string>>{{"--fail-sequence", "429,,500"},
                                                        {"--fail-sequence", "429,abc"},
                                                        {"--fail-sequence", "429,600"},
                                                        {"--refuse-key", "no-status"},
                                                        {"--refuse-key", ":401"},
                                                        {"--refuse-key", "key:99"},
                                                        {"--max-batch-events", "-1"}}) {
    Program program({"--port", "0", option, value}, directory.path() / "output");
    ASSERT_GT(program.pid, 0);
    EXPECT_EQ(program.stop(), 2) << option << " " << value;
  }
}

}  // namespace
}  // namespace pelora
