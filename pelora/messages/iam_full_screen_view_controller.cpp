#include "pelora/messages/iam_full_screen_view_controller.hpp"

#include <chrono>

#include "pelora/messages/iam_manager.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/http_session.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora {
namespace {

using platform::ui::Color;
using platform::ui::NavigationActionPolicy;
using platform::ui::Rect;

void print(std::string_view line) {
  platform::log::debugPrint(line);
}

std::string format(double value) {
  std::string text = std::to_string(value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.')) text.pop_back();
  return text;
}

// The label's top before any safe-area inset, and its distance from the right edge.
constexpr double kLabelTop = 50;
constexpr double kLabelRightMargin = 16;

}  // namespace

std::string IAMFullScreenViewController::countdownText(std::int64_t seconds) {
  return "Tự động đóng sau " + std::to_string(seconds) + "s";
}

void IAMFullScreenViewController::viewDidLoad() {
  auto application = platform::ui::Application::shared();
  const auto& root = view();
  definesPresentationContext = true;
  root->setBackgroundColor(Color::black(0.7));

  const Rect bounds = root->bounds();
  webView = application->makeWebView({0, 0, bounds.width, bounds.height});
  webView->setCenter(root->center());
  webView->setNavigationDelegate(std::shared_ptr<platform::ui::NavigationDelegate>(
      shared_from_this(), static_cast<platform::ui::NavigationDelegate*>(this)));
  webView->setOpaque(false);
  webView->setBackgroundColor(Color::clear());
  root->addSubview(webView);

  // Placed where message pages are laid out to expect it, although 14 points of it lie past the
  // right edge.
  const std::int64_t closingAfter = iamData ? iamData->closingAfter.value_or(0) : 0;
  closeCountDownLabel =
      application->makeLabel({bounds.width - kLabelRightMargin - 100, kLabelTop, 130, 20});
  closeCountDownLabel->setText(countdownText(closingAfter));
  closeCountDownLabel->setTextAlignment(platform::ui::TextAlignment::center);
  closeCountDownLabel->setTextColor(Color::white());
  closeCountDownLabel->setFontSize(11);
  closeCountDownLabel->setCornerRadius(10);
  closeCountDownLabel->setBackgroundColor(Color::gray());
  closeCountDownLabel->setHidden(!iamData || !iamData->closingAfter || closingAfter == 0);
  root->addSubview(closeCountDownLabel);

  if (iamData && closingAfter >= 1) {
    closeCounter = closingAfter;
    std::weak_ptr<ViewController> weak = weak_from_this();
    timer = application->scheduledTimer(
        std::chrono::seconds(1), true, [weak](platform::ui::Timer& fired) {
          auto self = weak.lock();
          if (!self) {
            fired.invalidate();
            return;
          }
          static_cast<IAMFullScreenViewController&>(*self).updateCounter();
        });
  }

  title = titleTxt.value_or("IAM");
  if (iamData) {
    if (auto message = iamData->decodedMessage(); message && message->htmlContent) {
      webView->loadHTMLString(*message->htmlContent);
    }
  }
  print("Page Load Webview");
  if (iamData) IAMManager::shared()->activeOpenIAM(*iamData);
}

void IAMFullScreenViewController::viewSafeAreaInsetsDidChange() {
  const auto& root = view();
  const auto insets = root->safeAreaInsets();
  print("Safe area insets: top " + format(insets.top) + ", left " + format(insets.left) +
        ", bottom " + format(insets.bottom) + ", right " + format(insets.right));
  if (webView) webView->setCenter(root->center());
  if (closeCountDownLabel) {
    Rect frame = closeCountDownLabel->frame();
    frame.x = root->bounds().width - kLabelRightMargin - frame.width;
    frame.y = kLabelTop + insets.top;
    closeCountDownLabel->setFrame(frame);
  }
}

void IAMFullScreenViewController::updateCounter() {
  if (closeCounter < 1) {
    if (timer) timer->invalidate();
    close();
    return;
  }
  closeCounter -= 1;
  if (closeCountDownLabel) closeCountDownLabel->setText(countdownText(closeCounter));
}

void IAMFullScreenViewController::close() {
  dismiss(true, [] { IAMManager::shared()->dismissIAM(); });
}

void IAMFullScreenViewController::decidePolicy(platform::ui::WebView& /*webView*/,
                                               const platform::ui::NavigationAction& action,
                                               std::function<void(NavigationActionPolicy)> decide) {
  const std::string link = action.url.value_or("");
  if (link.find("http") != std::string::npos) {
    print(link);
    auto application = platform::ui::Application::shared();
    // Message content is not trusted to open anything on its own: a script, a refresh or a frame
    // pointing at a link is not a person choosing it.
    if (action.userInitiated && platform::isAbsoluteURL(link) && application->canOpenURL(link)) {
      const std::string target = (iamData ? iamData->actionClick.value_or("") : "") + link;
      print("Open URL --- " + target);
      // The prefix comes from the service: what is opened is asked about again, whole.
      if (platform::isAbsoluteURL(target) && application->canOpenURL(target)) {
        application->openURL(target);
      } else {
        print("Link Invalid --- " + target);
      }
      // Closed without telling the manager and with the countdown left running, unlike a close by
      // the countdown or "pelora://exit": the behaviour message pages are written against.
      dismiss(true);
    } else {
      print("Link Invalid --- " + link);
    }
    decide(NavigationActionPolicy::cancel);
    return;
  }
  if (link.find("pelora://exit") != std::string::npos) {
    print(link);
    if (timer) timer->invalidate();
    close();
    decide(NavigationActionPolicy::cancel);
    return;
  }
  decide(NavigationActionPolicy::allow);
}

}  // namespace pelora
