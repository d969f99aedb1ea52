#include "pelora/messages/iam_full_screen_view_controller.hpp"

#include <gtest/gtest.h>

#include "pelora/messages/iam_manager.hpp"
#include "pelora/platform/logging.hpp"
#include "tests/support/iam.hpp"

namespace pelora {
namespace {

using namespace std::chrono_literals;
using platform::SerialQueue;
using platform::ui::NavigationActionPolicy;
using platform::ui::Rect;

class IAMViewTest : public ::testing::Test {
 protected:
  void TearDown() override { platform::log::setDebugEnabled(false); }

  // A view for a message with `fields`, presented over the root view controller.
  std::shared_ptr<IAMFullScreenViewController> show(const std::string& fields) {
    auto controller = std::make_shared<IAMFullScreenViewController>();
    controller->iamData = decodeFromString<IAMData>(test::iamData(fields));
    SerialQueue::main()->sync([&] {
      screen.application->windows().front()->rootViewController->present(controller, false);
    });
    return controller;
  }
  // What the main queue printed while `action` ran there, debug logs on.
  std::string printedBy(const std::function<void()>& action) {
    platform::log::setDebugEnabled(true);
    ::testing::internal::CaptureStdout();
    SerialQueue::main()->sync(action);
    SerialQueue::main()->sync([] {});  // completions it queued
    const std::string printed = ::testing::internal::GetCapturedStdout();
    platform::log::setDebugEnabled(false);
    return printed;
  }

  test::ManualHeadless screen;
};

// The countdown label: its place (14 points of it past the right edge), its text, and when it
// shows; the countdown runs only for a positive closingAfter.
TEST_F(IAMViewTest, CountdownLabelAndTimerFollowClosingAfter) {
  const double width = 390;
  struct Case {
    std::string fields;
    std::string text;
    bool hidden;
    bool counting;
  };
  for (const Case& c : {Case{R"("closingAfter":3)", "Tự động đóng sau 3s", false, true},
                        Case{R"("closingAfter":0)", "Tự động đóng sau 0s", true, false},
                        Case{R"("closingAfter":-2)", "Tự động đóng sau -2s", false, false},
                        Case{"", "Tự động đóng sau 0s", true, false}}) {
    SCOPED_TRACE(c.fields);
    auto view = show(c.fields);
    SerialQueue::main()->sync([&] {
      const auto& label = *view->closeCountDownLabel;
      EXPECT_EQ(label.text(), c.text);
      EXPECT_EQ(label.frame(), (Rect{width - 116, 50, 130, 20}));
      EXPECT_EQ(label.isHidden(), c.hidden);
      EXPECT_EQ(label.fontSize(), 11);
      EXPECT_EQ(label.cornerRadius(), 10);
      EXPECT_EQ(view->timer != nullptr, c.counting);
      EXPECT_EQ(view->title, "IAM");
      EXPECT_EQ(view->view()->backgroundColor(), platform::ui::Color::black(0.7));
      EXPECT_EQ(view->webView->frame(), (Rect{0, 0, width, 844}));
      EXPECT_FALSE(view->webView->isOpaque());
      EXPECT_EQ(view->webView->loadedHTML(), "<p>Hi</p>");
      view->dismiss(false);
    });
  }
}

// Counting down from 3 shows 2s, 1s, 0s; the next tick closes the view and tells the manager.
TEST_F(IAMViewTest, ClosesOnTheTickAfterZeroAndTellsTheManager) {
  auto view = show(R"("closingAfter":3)");
  for (const char* text : {"Tự động đóng sau 2s", "Tự động đóng sau 1s", "Tự động đóng sau 0s"}) {
    screen.application->advance(1s);
    EXPECT_EQ(SerialQueue::main()->sync([&] { return view->closeCountDownLabel->text(); }), text);
    EXPECT_EQ(screen.top(), view);
  }
  platform::log::setDebugEnabled(true);
  ::testing::internal::CaptureStdout();
  screen.application->advance(1s);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  platform::log::setDebugEnabled(false);
  EXPECT_EQ(screen.top(), nullptr);
  EXPECT_NE(printed.find("dismissIAM ..."), std::string::npos) << printed;
  EXPECT_FALSE(view->timer->isValid());
  screen.application->advance(300ms);  // the manager's hand-over
}

// Links a person follows: http(s) ones open behind actionClick (when the whole is still a web
// link) and close the view without telling the manager; the exit link (a query allowed) closes it
// and tells the manager; an exit link whose query holds "http" is an external link that cannot be
// opened, as is any other scheme; anything else loads. What the page follows by itself (scripts,
// refreshes, frames) opens nothing and leaves the view up, though it may still close its message
// through the exit link.
TEST_F(IAMViewTest, NavigationsOpenCloseOrLoad) {
  struct Case {
    std::string fields;
    std::string link;
    bool clicked;
    NavigationActionPolicy policy;
    std::string opened;  // empty: nothing opened
    bool closed;
    bool managerTold;
  };
  const std::string actionClick = R"("actionClick":"https://r.example/c?u=")";
  const std::vector<Case> cases = {
      {R"("closingAfter":5)", "https://example.com/a?b=1", true, NavigationActionPolicy::cancel,
       "https://example.com/a?b=1", true, false},
      {actionClick, "http://example.com/x", true, NavigationActionPolicy::cancel,
       "https://r.example/c?u=http://example.com/x", true, false},
      // The service's prefix makes a web link into something else: nothing opens.
      {R"("actionClick":"file:///etc/passwd#")", "https://example.com/a", true,
       NavigationActionPolicy::cancel, "", true, false},
      {"", "pelora://exit?reason=done", true, NavigationActionPolicy::cancel, "", true, true},
      {"", "pelora://exit?next=http", true, NavigationActionPolicy::cancel, "", false, false},
      {"", "ssh://host?http", true, NavigationActionPolicy::cancel, "", false, false},
      {"", "about:blank", true, NavigationActionPolicy::allow, "", false, false},
      {R"("closingAfter":5)", "https://example.com/a", false, NavigationActionPolicy::cancel, "",
       false, false},
      {actionClick, "probe-scheme://x?via=http", false, NavigationActionPolicy::cancel, "", false,
       false},
      {"", "pelora://exit", false, NavigationActionPolicy::cancel, "", true, true},
      {"", "about:blank", false, NavigationActionPolicy::allow, "", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.link + (c.clicked ? " (clicked)" : " (by the page)"));
    auto view = show(c.fields);
    const auto openedBefore = screen.application->openedURLs().size();
    NavigationActionPolicy policy = NavigationActionPolicy::allow;
    const std::string printed = printedBy([&] {
      policy = view->webView->navigate(platform::ui::NavigationAction{c.link, c.clicked});
    });
    EXPECT_EQ(policy, c.policy);
    const auto opened = screen.application->openedURLs();
    if (c.opened.empty()) {
      EXPECT_EQ(opened.size(), openedBefore);
    } else {
      ASSERT_EQ(opened.size(), openedBefore + 1);
      EXPECT_EQ(opened.back(), c.opened);
      EXPECT_NE(printed.find("Open URL --- " + c.opened), std::string::npos) << printed;
    }
    EXPECT_EQ(screen.top() == nullptr, c.closed);
    EXPECT_EQ(printed.find("dismissIAM ...") != std::string::npos, c.managerTold) << printed;
    if (c.opened.empty() && c.link.find("http") != std::string::npos) {
      EXPECT_NE(printed.find("Link Invalid --- "), std::string::npos) << printed;
    }
    // An opened link leaves the countdown running, as it always did; a refused one too.
    if (c.fields == R"("closingAfter":5)") {
      EXPECT_TRUE(view->timer->isValid());
    }
    SerialQueue::main()->sync([&] { view->dismiss(false); });
    screen.application->advance(300ms);
  }
}

// Bars on the screen move the label below them, its right edge 16 points inside.
TEST_F(IAMViewTest, SafeAreaMovesTheLabelClearOfTheBars) {
  auto withBars = std::make_shared<platform::ui::HeadlessApplication>(
      Rect{0, 0, 400, 800}, platform::ui::EdgeInsets{47, 0, 34, 0});
  withBars->useManualClock();
  platform::ui::Application::install(withBars);
  auto view = std::make_shared<IAMFullScreenViewController>();
  view->iamData = decodeFromString<IAMData>(test::iamData(R"("closingAfter":4)"));
  SerialQueue::main()->sync([&] {
    withBars->windows().front()->rootViewController->present(view, false);
    EXPECT_EQ(view->closeCountDownLabel->frame(), (Rect{400 - 16 - 130, 50 + 47, 130, 20}));
    EXPECT_EQ(view->webView->center(), (platform::ui::Point{200, 400}));
    view->dismiss(false);
  });
}

}  // namespace
}  // namespace pelora
