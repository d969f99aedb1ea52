// IAMFullScreenViewController: one in-app message over the host's screen: a transparent web view
// with the message's HTML on a dimmed backdrop, and a small rounded label that counts down to an
// automatic close. Made and presented by IAMManager, which it tells when it opens and when it
// closes. Main queue only. Prints only while debug logs are on.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "pelora/core/export.h"
#include "pelora/messages/iam_records.hpp"
#include "pelora/platform/ui.hpp"

namespace pelora {

class PELORA_API IAMFullScreenViewController : public platform::ui::ViewController,
                                               public platform::ui::NavigationDelegate {
 public:
  // "Tự động đóng sau " + seconds + "s".
  static std::string countdownText(std::int64_t seconds);

  std::shared_ptr<platform::ui::WebView> webView;
  std::shared_ptr<platform::ui::Label> closeCountDownLabel;
  std::optional<std::string> titleTxt;  // "IAM Ads Immediately" or "IAM Ads Timer"
  std::optional<IAMData> iamData;
  std::int64_t closeCounter = 0;
  std::shared_ptr<platform::ui::Timer> timer;

  // Builds the backdrop, the web view and the label, starts the countdown when the message
  // closes itself, loads its HTML and sends its open notification.
  void viewDidLoad() override;
  // Keeps the web view centred and the label clear of the bars.
  void viewSafeAreaInsetsDidChange() override;
  // One countdown step (every second): the step after 0 closes the view and tells the manager.
  void updateCounter();
  // http(s) links a person follows open (behind actionClick) and close the view without telling
  // the manager; ones the page follows by itself are refused and the view stays; "pelora://exit"
  // closes it and tells the manager (a countdown script may close its own message); everything
  // else loads.
  void decidePolicy(platform::ui::WebView& webView, const platform::ui::NavigationAction& action,
                    std::function<void(platform::ui::NavigationActionPolicy)> decide) override;

 private:
  // Dismissed with the manager told once the dismissal is done.
  void close();
};

}  // namespace pelora
