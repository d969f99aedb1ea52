#include "pelora/messages/iam_manager.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <thread>

#include "pelora/client/analytics.hpp"
#include "pelora/messages/iam_full_screen_view_controller.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/logging.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/iam.hpp"
#include "tests/support/temp_directory.hpp"
#include "tests/support/waiting.hpp"

namespace pelora {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using test::eventually;

// Whether `lines` are whole lines of `text`, in this order.
bool linesInOrder(const std::string& text, std::initializer_list<std::string> lines) {
  std::size_t at = 0;
  for (const auto& line : lines) {
    at = ("\n" + text).find("\n" + line + "\n", at);
    if (at == std::string::npos) return false;
    at += line.size() + 1;
  }
  return true;
}

bool pullsReach(const Collector& collector, std::size_t count, std::chrono::milliseconds within) {
  return collector.waitFor([&](const Collector::Counts& c) { return c.pulls >= count; }, within);
}

class IAMManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { collector.holdPulls(20s); }
  void TearDown() override {
    platform::log::setDebugEnabled(false);
    manager->stopPolling();
    // Whatever is still on screen goes, so that the shared manager is idle for the next test.
    if (auto shown = std::dynamic_pointer_cast<IAMFullScreenViewController>(screen.top())) {
      close(shown);
      screen.application->advance(300ms);
    }
  }
  std::shared_ptr<IAMFullScreenViewController> shown() {
    std::shared_ptr<IAMFullScreenViewController> controller;
    eventually([&] {
      controller = std::dynamic_pointer_cast<IAMFullScreenViewController>(screen.top());
      return controller != nullptr;
    });
    return controller;
  }
  // Follows the exit link; returns once the view is gone and the manager has been told.
  void close(const std::shared_ptr<IAMFullScreenViewController>& controller) {
    platform::SerialQueue::main()->sync(
        [&] { controller->webView->navigate(std::string("pelora://exit")); });
    platform::SerialQueue::main()->sync([] {});  // the dismissal's completion
    EXPECT_EQ(screen.top(), nullptr);
  }

  test::ManualHeadless screen;
  Collector collector;
  std::shared_ptr<IAMManager> manager = IAMManager::shared();
};

// The loop pulls again at once after the first error answers in a row, one pull at a time, and a
// stop ends it for good with its thread.
TEST_F(IAMManagerTest, FirstFailedPullsAreFollowedAtOnceAndStoppingEndsTheLoop) {
  const int threads = test::threadsNamed("pelora-http");
  collector.failPulls(500, 3);
  auto setup = test::setupFor(collector);
  setup.backoffStart = 20s;  // any wait before the fourth pull would show
  manager->start(setup);
  ASSERT_TRUE(pullsReach(collector, 4, 10s));  // three answered 500, the fourth held
  EXPECT_FALSE(pullsReach(collector, 5, 300ms));
  EXPECT_TRUE(manager->isPolling());
  EXPECT_EQ(collector.pullPaths().front(), "iam-key/DEVICE-1/");
  EXPECT_EQ(test::threadsNamed("pelora-http"), threads + 1);

  manager->stopPolling();
  EXPECT_FALSE(manager->isPolling());
  EXPECT_TRUE(eventually([&] { return test::threadsNamed("pelora-http") == threads; }));
  EXPECT_FALSE(pullsReach(collector, 5, 300ms));
}

// A stop that names an earlier start leaves a later one polling (one client does not stop
// another's); once stopped, a message still on screen sends no open notification.
TEST_F(IAMManagerTest, AStopForAnEarlierStartLeavesTheLaterOneAndAfterAStopNothingIsNotified) {
  collector.holdPulls(50ms);
  const auto first = manager->start(test::setupFor(collector));
  const auto second = manager->start(test::setupFor(collector));
  manager->stopPolling(first);
  EXPECT_TRUE(manager->isPolling());
  const auto pulls = collector.counts().pulls;
  EXPECT_TRUE(pullsReach(collector, pulls + 2, 10s));
  manager->stopPolling(second);
  EXPECT_FALSE(manager->isPolling());

  IAMData data;
  data.actionOpen = "https://" + test::iamHost() + "/iam/opened/after-stop";
  manager->activeOpenIAM(data);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(collector.counts().opened, 0u);
}

// Pulls this manager starts from now on, whatever the tests before left counted.
struct PullCount {
  std::shared_ptr<IAMManager> manager;
  std::uint64_t base = manager->pullsStarted();
  std::uint64_t operator()() const { return manager->pullsStarted() - base; }
};

// Offline with the default settings the loop neither spins nor gives up: a handful of pulls at
// once, then waits that grow, said once; a stop during a wait ends it.
TEST_F(IAMManagerTest, OfflineThePullLoopBacksOffAndAStopEndsItsWait) {
  platform::log::setDebugEnabled(true);
  std::mutex mutex;
  std::string printed;
  platform::setLogHandler([&](LogLevel, std::string_view line) {
    std::lock_guard lock(mutex);
    printed.append(line).append("\n");
  });
  auto setup = test::setupFor(collector);
  setup.connectTo = {test::iamHost() + ":443:127.0.0.1:" + std::to_string(test::closedPort())};
  const PullCount pulls{manager};
  manager->start(setup);
  // Four at once, then waits of at least 125, 250 and 500 ms: 7 pulls by then at most, and at
  // least 6 (the waits are at most 250 and 500 ms).
  std::this_thread::sleep_for(1500ms);
  const auto early = pulls();
  EXPECT_GE(early, 6u);
  EXPECT_LE(early, 7u);

  EXPECT_TRUE(eventually([&] { return !manager->isPolling(); }));  // between two pulls
  const auto begin = std::chrono::steady_clock::now();
  manager->stopPolling();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
  const auto stopped = pulls();
  std::this_thread::sleep_for(2500ms);  // past the longest wait the loop can be in by now
  EXPECT_EQ(pulls(), stopped);
  platform::setLogHandler(nullptr);
  std::lock_guard lock(mutex);
  std::size_t said = 0;
  for (auto at = printed.find("waiting longer between pulls"); at != std::string::npos;
       at = printed.find("waiting longer between pulls", at + 1)) {
    ++said;
  }
  EXPECT_EQ(said, 1u) << printed;
}

// A pull that succeeds ends the backoff: the next starts at once, and the failures after it count
// afresh from the first.
TEST_F(IAMManagerTest, ASuccessfulPullEndsTheBackoff) {
  collector.failPulls(500, 4);
  collector.holdPulls(300ms);  // then answered 200 without a message
  auto setup = test::setupFor(collector);
  setup.backoffStart = 400ms;
  manager->start(setup);
  ASSERT_TRUE(pullsReach(collector, 5, 10s));  // after a wait of 200 to 400 ms, then held
  collector.failPulls(500, 3);
  const auto held = std::chrono::steady_clock::now();
  // Counted on from the fifth failure, they would wait 400, 800 and 1,600 ms at least.
  ASSERT_TRUE(pullsReach(collector, 9, 10s));
  EXPECT_LT(std::chrono::steady_clock::now() - held, 300ms + 1000ms);
}

// The backoff's schedule: none for the first failures, then the step doubles up to the cap, each
// wait drawn from the upper half of its step.
TEST(IAMBackoff, WaitsDoubleUpToTheCapWithJitterInTheUpperHalf) {
  constexpr auto start = IAMManager::kBackoffStart;
  constexpr auto cap = IAMManager::kBackoffCap;
  const auto wait = [&](std::uint32_t failures, double unit) {
    return IAMManager::backoffWait(failures, unit, start, cap);
  };
  for (std::uint32_t failures = 0; failures <= 3; ++failures) {
    EXPECT_EQ(wait(failures, 0.99), 0ms) << failures;
  }
  const std::vector<std::chrono::milliseconds> steps = {250ms, 500ms, 1s,  2s,  4s,
                                                        8s,    16s,   32s, 60s, 60s};
  for (std::uint32_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE(i + 4);
    EXPECT_EQ(wait(i + 4, 0), steps[i] - steps[i] / 2);  // half, rounded up
    EXPECT_EQ(wait(i + 4, 0.999999), steps[i]);
    for (const double unit : {0.1, 0.5, 0.9}) {
      EXPECT_LE(wait(i + 4, unit), steps[i]);
      EXPECT_GE(wait(i + 4, unit), steps[i] / 2);
    }
  }
  EXPECT_EQ(wait(UINT32_MAX, 0.999999), cap);  // no overflow however long the device is offline
  // Shortened for tests, and a cap below the start.
  EXPECT_EQ(IAMManager::backoffWait(6, 0.999999, 10ms, 25ms), 25ms);
  EXPECT_EQ(IAMManager::backoffWait(4, 0.999999, 10ms, 1ms), 10ms);
}

// With a retry delay, a failed pull waits before the next, from the first failure on and however
// many there are (no backoff on top of the host's choice), and a stop during the wait means there
// is no next.
TEST_F(IAMManagerTest, RetryDelayWaitsAfterEachFailureAndAStopCancelsTheWait) {
  collector.failPulls(503, 2);
  auto setup = test::setupFor(collector);
  setup.retryDelay = 400ms;
  const auto begin = std::chrono::steady_clock::now();
  manager->start(setup);
  ASSERT_TRUE(pullsReach(collector, 2, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 400ms);
  manager->stopPolling();  // during the wait after the second failure
  EXPECT_FALSE(pullsReach(collector, 3, 800ms));

  setup.connectTo = {test::iamHost() + ":443:127.0.0.1:" + std::to_string(test::closedPort())};
  setup.retryDelay = 100ms;
  const PullCount pulls{manager};
  manager->start(setup);
  std::this_thread::sleep_for(1500ms);
  // About 15 a fixed 100 ms apart; a delay that doubled, or the backoff, would allow 7 at most.
  EXPECT_GE(pulls(), 10u);
  EXPECT_LE(pulls(), 16u);
}

TEST_F(IAMManagerTest, WithoutAWriteKeyNothingIsRequested) {
  platform::log::setDebugEnabled(true);
  // The pull loop prints from its own thread: collect the lines until its last one arrived.
  std::mutex mutex;
  std::string printed;
  platform::setLogHandler([&](LogLevel, std::string_view line) {
    std::lock_guard lock(mutex);
    printed.append(line).append("\n");
  });
  manager->start(test::setupFor(collector, ""));
  const bool ended = test::eventually([&] {
    std::lock_guard lock(mutex);
    return printed.find("isn't initialized") != std::string::npos;
  });
  platform::setLogHandler(nullptr);
  ASSERT_TRUE(ended) << printed;
  EXPECT_TRUE(linesInOrder(printed, {"IAM : Init -enableIAM", "--- Start Polling ----",
                                     "--- Error : Pelora SDK isn't initialized ---"}))
      << printed;
  EXPECT_FALSE(pullsReach(collector, 1, 300ms));
}

// Messages queue up while one is shown and follow one another, each 0.3 s after the previous
// one closed; each sends its open notification.
TEST_F(IAMManagerTest, QueuedMessagesFollowEachCloseAfterAHandOver) {
  const std::string opened = "\"actionOpen\":\"https://" + test::iamHost() + "/iam/opened/";
  collector.queueInAppMessage(test::iamData(opened + "first\"", "<p>first</p>"));
  collector.queueInAppMessage(test::iamData(opened + "second\"", "<p>second</p>"));
  manager->start(test::setupFor(collector));

  auto first = shown();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->title, "IAM Ads Immediately");
  EXPECT_EQ(first->webView->loadedHTML(), "<p>first</p>");
  EXPECT_EQ(first->modalPresentationStyle,
            platform::ui::ModalPresentationStyle::overCurrentContext);
  EXPECT_EQ(first->modalTransitionStyle, platform::ui::ModalTransitionStyle::crossDissolve);
  ASSERT_TRUE(eventually([&] { return manager->queuedCount() == 1; }));  // waiting its turn
  // Each notification is a request of its own: let the first arrive before the second can start.
  ASSERT_TRUE(collector.waitFor([](const auto& c) { return c.opened == 1; }, 10s));

  close(first);
  screen.application->advance(299ms);
  EXPECT_EQ(screen.top(), nullptr);
  screen.application->advance(1ms);
  auto second = shown();
  ASSERT_TRUE(second);
  EXPECT_EQ(second->webView->loadedHTML(), "<p>second</p>");
  EXPECT_TRUE(collector.waitFor([](const auto& c) { return c.opened == 2; }, 10s));
  EXPECT_EQ(collector.openNotifications(),
            (std::vector<std::string>{"/iam/opened/first", "/iam/opened/second"}));
}

// "time" (any letter case) with a positive activeValue waits that many seconds; otherwise a
// message shows at once.
TEST_F(IAMManagerTest, TimeMessagesWaitTheirSeconds) {
  platform::log::setDebugEnabled(true);
  collector.queueInAppMessage(test::iamData(R"("activeType":"TIME","activeValue":3)"));
  ::testing::internal::CaptureStdout();
  manager->start(test::setupFor(collector));
  ASSERT_TRUE(eventually([&] {
    return platform::SerialQueue::main()->sync([&] { return manager->isPresenting(); });
  }));
  EXPECT_EQ(manager->countDown(), 3);
  screen.application->advance(2999ms);
  EXPECT_EQ(screen.top(), nullptr);
  screen.application->advance(1ms);
  auto delayed = shown();
  const std::string printed = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(delayed);
  EXPECT_EQ(delayed->title, "IAM Ads Timer");
  // Lines of the pull loop's thread may come between these.
  EXPECT_TRUE(linesInOrder(printed, {"Type: TIME", "Value: 3", "Waiting 2 second",
                                     "Waiting 1 second", "Stop 0 second", "Waiting 0 second"}))
      << printed;
  close(delayed);
  screen.application->advance(300ms);

  collector.queueInAppMessage(test::iamData(R"("activeType":"time","activeValue":0)"));
  auto immediate = shown();
  ASSERT_TRUE(immediate);
  EXPECT_EQ(immediate->title, "IAM Ads Immediately");
  close(immediate);
  screen.application->advance(300ms);

  // The largest number the service can send waits (a day at most) instead of overflowing into
  // "at once".
  collector.queueInAppMessage(
      test::iamData(R"("activeType":"time","activeValue":9223372036854775807)"));
  ASSERT_TRUE(eventually([&] {
    return platform::SerialQueue::main()->sync([&] { return manager->isPresenting(); });
  }));
  screen.application->advance(5s);
  EXPECT_EQ(screen.top(), nullptr);
}

// Each part of the pull address is one path component whatever the key or id holds, and ordinary
// ones keep their bytes; an address that cannot be formed says so instead of polling silently.
TEST_F(IAMManagerTest, PullAddressesCannotBeBentByTheKeyOrTheUser) {
  test::TestHttpsServer server;
  server.setDefaultResponse({.delay = 20s});
  auto setupFor = [&](std::string key, std::string user) {
    IAMManager::Setup setup = test::setupFor(collector, std::move(key), std::move(user));
    setup.connectTo = {server.connectTo(test::iamHost())};
    setup.caBundle = server.certificates().caFile;
    return setup;
  };
  const std::vector<std::pair<std::pair<std::string, std::string>, std::string>> cases = {
      {{"Key-1_a.b~c", "DEVICE-1"}, "Key-1_a.b~c/DEVICE-1/"},
      {{"u/../../../../admin", ".."}, "u%2F..%2F..%2F..%2F..%2Fadmin/%2E%2E/"},
      {{"k?x=1#f", "a b\r\nc"}, "k%3Fx%3D1%23f/a%20b%0D%0Ac/"},
      {{std::string("nul\0key", 7), ""}, "nul%00key//"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [input, expected] = cases[i];
    SCOPED_TRACE(expected);
    manager->start(setupFor(input.first, input.second));
    ASSERT_TRUE(server.waitForRequests(i + 1));
    EXPECT_EQ(server.requests()[i].target, "/push/push/pull/" + expected);
  }
  manager->stopPolling();

  std::mutex mutex;
  std::string printed;
  platform::setLogHandler([&](LogLevel level, std::string_view line) {
    std::lock_guard lock(mutex);
    if (level == LogLevel::warning) printed.append(line).append("\n");
  });
  auto broken = setupFor("key", "user");
  broken.hostDomain = "https://bad host";
  manager->start(broken);
  const bool warned = eventually([&] {
    std::lock_guard lock(mutex);
    return printed.find("in-app messages are off") != std::string::npos;
  });
  platform::setLogHandler(nullptr);
  EXPECT_TRUE(warned) << printed;
}

// A service that drips its answer cannot hold a pull past the pull time limit: the next one
// follows.
TEST_F(IAMManagerTest, APullEndsAtItsTimeLimitHoweverTheServiceDrips) {
  test::TestHttpsServer server;
  server.setDefaultResponse({.body = " ",
                             .contentType = "application/octet-stream",
                             .streamBytes = test::ScriptedResponse::kEndless,
                             .pieceDelay = 50ms});
  auto setup = test::setupFor(collector);
  setup.connectTo = {server.connectTo(test::iamHost())};
  setup.caBundle = server.certificates().caFile;
  setup.pullTimeLimit = 500ms;
  const auto begin = std::chrono::steady_clock::now();
  manager->start(setup);
  ASSERT_TRUE(server.waitForRequests(2, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 500ms);
  manager->stopPolling();
}

// A host may end its process while a pull is held open: exit() neither hangs nor crashes.
TEST(IAMManagerDeathTest, ExitWithAPullHeldOpen) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Collector collector;
        collector.holdPulls(60s);
        IAMManager::shared()->start(test::setupFor(collector));
        if (!pullsReach(collector, 1, 10s)) std::_Exit(3);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Answers that carry no message are dropped and the loop goes on.
TEST_F(IAMManagerTest, AnswersWithoutAMessageKeepTheLoopGoing) {
  collector.holdPulls(0ms);
  manager->start(test::setupFor(collector));
  ASSERT_TRUE(pullsReach(collector, 20, 10s));
  EXPECT_EQ(manager->queuedCount(), 0u);
  EXPECT_EQ(screen.top(), nullptr);
}

// The client starts polling only when enableIAM is on; any flavor but "dev" and "stg", in any
// letter case, reaches the production service.
TEST(AnalyticsIAM, EnableIAMStartsPollingTheFlavorsService) {
  test::ManualHeadless screen;
  test::TempDirectory dir;
  Collector collector;
  collector.holdPulls(20s);
  auto configure = [&](bool enableIAM) {
    auto configuration =
        std::make_shared<Configuration>("client-key", std::optional<std::string>("DEV"), enableIAM);
    configuration->paths({dir.path() / "docs", dir.path() / "prefs"})
        .autoAddPeloraDestination(false)
        .connectTo({collector.connectTo(test::iamHost())})
        .caBundle(collector.certificates().caFile);
    return configuration;
  };
  PeloraAnalytics::setPeloraUserId("DEVICE-9");
  auto off = PeloraAnalytics::create(configure(false));
  EXPECT_FALSE(pullsReach(collector, 1, 300ms));
  auto on = PeloraAnalytics::create(configure(true));
  ASSERT_TRUE(pullsReach(collector, 1, 10s));
  EXPECT_EQ(collector.pullPaths().front(), "client-key/DEVICE-9/");
  IAMManager::shared()->stopPolling();
}

}  // namespace
}  // namespace pelora
