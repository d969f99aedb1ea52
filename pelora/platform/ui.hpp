// The small UI toolkit that in-app messages draw with, standing in for the phone's: a window list
// whose first window has a root view controller, modal presentation, views, labels, a web view
// that asks a delegate about every navigation, opening URLs, and main-queue timers. Every call
// belongs on the main queue.
//
// The classes below keep their state in memory, which is all the headless toolkit (the default)
// needs: a test or a server host reads what is on screen from them. A desktop toolkit (pelora::gtk)
// subclasses them and mirrors each change onto real widgets through the protected hooks.
#pragma once

#include "pelora/core/export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pelora::platform::ui {

struct PELORA_API Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct PELORA_API Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  Point center() const noexcept { return {x + width / 2, y + height / 2}; }
  friend bool operator==(const Rect&, const Rect&) = default;
};

struct PELORA_API EdgeInsets {
  double top = 0;
  double left = 0;
  double bottom = 0;
  double right = 0;
  friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

// Components from 0 to 1.
struct PELORA_API Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
  static Color black(double alpha = 1) { return {0, 0, 0, alpha}; }
  static Color white() { return {1, 1, 1, 1}; }
  static Color gray() { return {0.5, 0.5, 0.5, 1}; }
  static Color clear() { return {0, 0, 0, 0}; }
  friend bool operator==(const Color&, const Color&) = default;
};

enum class TextAlignment { left, center, right };
enum class ModalPresentationStyle { fullScreen, overCurrentContext };
enum class ModalTransitionStyle { coverVertical, crossDissolve };
enum class NavigationActionPolicy { cancel, allow };

class PELORA_API View {
 public:
  explicit View(Rect frame = {}) : frame_(frame) {}
  virtual ~View() = default;
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  Rect frame() const noexcept { return frame_; }
  void setFrame(Rect frame);
  // The frame's size at the origin.
  Rect bounds() const noexcept { return {0, 0, frame_.width, frame_.height}; }
  Point center() const noexcept { return frame_.center(); }
  void setCenter(Point center);
  // Set by the toolkit for root views: the parts of the screen that bars cover.
  EdgeInsets safeAreaInsets() const noexcept { return safeAreaInsets_; }
  void setSafeAreaInsets(EdgeInsets insets) { safeAreaInsets_ = insets; }
  Color backgroundColor() const noexcept { return backgroundColor_; }
  void setBackgroundColor(Color color);
  bool isHidden() const noexcept { return hidden_; }
  void setHidden(bool hidden);
  // Subviews are drawn over this view, later ones over earlier ones.
  void addSubview(std::shared_ptr<View> view);
  const std::vector<std::shared_ptr<View>>& subviews() const noexcept { return subviews_; }

 protected:
  // Called after each change, for a toolkit that mirrors the view onto a widget.
  virtual void changed() {}
  virtual void subviewAdded(View& /*view*/) {}

 private:
  Rect frame_;
  EdgeInsets safeAreaInsets_;
  Color backgroundColor_ = Color::clear();
  bool hidden_ = false;
  std::vector<std::shared_ptr<View>> subviews_;
};

class PELORA_API Label : public View {
 public:
  using View::View;

  const std::string& text() const noexcept { return text_; }
  void setText(std::string text);
  TextAlignment textAlignment() const noexcept { return alignment_; }
  void setTextAlignment(TextAlignment alignment);
  double fontSize() const noexcept { return fontSize_; }
  void setFontSize(double points);
  Color textColor() const noexcept { return textColor_; }
  void setTextColor(Color color);
  // Rounded corners; the content is clipped to them.
  double cornerRadius() const noexcept { return cornerRadius_; }
  void setCornerRadius(double radius);

 private:
  std::string text_;
  TextAlignment alignment_ = TextAlignment::left;
  double fontSize_ = 17;
  Color textColor_ = Color::black();
  double cornerRadius_ = 0;
};

class WebView;

// One navigation of a web view: where it goes and how it came about.
struct PELORA_API NavigationAction {
  // The target; nothing when it has none.
  std::optional<std::string> url;
  // A person started it (a click, a key press) rather than the page on its own (a script, a
  // refresh, a frame loading, the document's first load).
  bool userInitiated = false;
};

// Decides every navigation of a web view, its first load included.
class PELORA_API NavigationDelegate {
 public:
  virtual ~NavigationDelegate() = default;
  // `decide` must be called once. Allowing a navigation lets the view follow it only as far as
  // its toolkit lets a page go (a real one keeps to the document it was given).
  virtual void decidePolicy(WebView& webView, const NavigationAction& action,
                            std::function<void(NavigationActionPolicy)> decide) = 0;
};

class PELORA_API WebView : public View {
 public:
  using View::View;

  // Not opaque: what lies under the view shows where the page draws nothing.
  bool isOpaque() const noexcept { return opaque_; }
  void setOpaque(bool opaque);
  // Held weakly.
  void setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) {
    delegate_ = std::move(delegate);
  }
  std::shared_ptr<NavigationDelegate> navigationDelegate() const { return delegate_.lock(); }
  // Loads an HTML document with no base URL. The headless view keeps the text; a real one asks the
  // delegate about the load and shows the page.
  virtual void loadHTMLString(std::string html);
  // The last document loaded, if any.
  const std::optional<std::string>& loadedHTML() const noexcept { return html_; }
  // A person following a link to `url` in the page: asks the delegate, and returns what it
  // decided (allow when there is no delegate). The headless view does nothing more.
  NavigationActionPolicy navigate(const std::optional<std::string>& url);
  // The same for any navigation, one the page starts by itself included.
  NavigationActionPolicy navigate(const NavigationAction& action);

 private:
  bool opaque_ = true;
  std::weak_ptr<NavigationDelegate> delegate_;
  std::optional<std::string> html_;
};

class Application;

class PELORA_API ViewController : public std::enable_shared_from_this<ViewController> {
 public:
  ViewController() = default;
  virtual ~ViewController() = default;
  ViewController(const ViewController&) = delete;
  ViewController& operator=(const ViewController&) = delete;

  // The root view: made by the toolkit on first use, sized to the screen; viewDidLoad follows.
  const std::shared_ptr<View>& view();
  bool isViewLoaded() const noexcept { return view_ != nullptr; }

  std::optional<std::string> title;
  ModalPresentationStyle modalPresentationStyle = ModalPresentationStyle::fullScreen;
  ModalTransitionStyle modalTransitionStyle = ModalTransitionStyle::coverVertical;
  bool definesPresentationContext = false;

  // Called once the root view exists.
  virtual void viewDidLoad() {}
  // Called when the root view's safe-area insets are set or change.
  virtual void viewSafeAreaInsetsDidChange() {}

  // Shows `controller` over this one (loading its view first); `completion` runs later on the main
  // queue, once it is shown.
  void present(std::shared_ptr<ViewController> controller, bool animated,
               std::function<void()> completion = {});
  // Takes this controller off the screen (or the one it presents, if any); `completion` runs later
  // on the main queue. Nothing happens (the completion does not run) when neither is on screen.
  void dismiss(bool animated, std::function<void()> completion = {});

  std::shared_ptr<ViewController> presentedViewController() const { return presented_; }
  std::shared_ptr<ViewController> presentingViewController() const { return presenting_.lock(); }

 private:
  std::shared_ptr<View> view_;
  std::shared_ptr<ViewController> presented_;
  std::weak_ptr<ViewController> presenting_;
};

struct PELORA_API Window {
  std::shared_ptr<ViewController> rootViewController;
};

// A timer on the main queue, scheduled through the application.
class PELORA_API Timer {
 public:
  virtual ~Timer() = default;
  // Stops it for good; a firing that has not started yet does not run.
  virtual void invalidate() = 0;
  virtual bool isValid() const = 0;
};

// The toolkit: what a phone's application object and its run loop offer. One per process.
class PELORA_API Application {
 public:
  virtual ~Application() = default;

  // The toolkit in use: the headless one unless a host installed another. Never destroyed.
  static std::shared_ptr<Application> shared();
  // Makes `application` the shared one (a desktop host does this before creating its client);
  // nothing gives the headless one back.
  static void install(std::shared_ptr<Application> application);

  // The windows, front first; the first one's root view controller presents messages.
  virtual std::vector<std::shared_ptr<Window>> windows() const = 0;
  virtual bool canOpenURL(const std::string& url) const = 0;
  virtual void openURL(const std::string& url) = 0;

  // A timer whose `block` runs on the main queue after `interval`, and again every `interval`
  // when it repeats, until invalidated.
  virtual std::shared_ptr<Timer> scheduledTimer(std::chrono::milliseconds interval, bool repeats,
                                                std::function<void(Timer&)> block);

  // Views for a controller's root view (sized to the screen), labels and web views.
  virtual std::shared_ptr<View> makeRootView() = 0;
  virtual std::shared_ptr<Label> makeLabel(Rect frame);
  virtual std::shared_ptr<WebView> makeWebView(Rect frame);

 protected:
  friend class ViewController;
  // Puts `presented` (its view loaded) on screen over `presenting`, and takes it off.
  virtual void show(ViewController& /*presenting*/, ViewController& /*presented*/,
                    bool /*animated*/) {}
  virtual void hide(ViewController& /*presented*/, bool /*animated*/) {}
};

// The default toolkit: one window of the given screen size with a root view controller, nothing
// drawn, everything kept for reading. URLs that can be opened are recorded as opened. Tests may
// run its timers on a manual clock.
class PELORA_API HeadlessApplication : public Application {
 public:
  // A screen without bars by default (a server host has none).
  explicit HeadlessApplication(Rect screen = {0, 0, 390, 844}, EdgeInsets safeArea = {});

  std::vector<std::shared_ptr<Window>> windows() const override;
  // http and https URLs (a browser and nothing else), unless setCanOpen says otherwise.
  bool canOpenURL(const std::string& url) const override;
  void openURL(const std::string& url) override;
  std::shared_ptr<Timer> scheduledTimer(std::chrono::milliseconds interval, bool repeats,
                                        std::function<void(Timer&)> block) override;
  std::shared_ptr<View> makeRootView() override;

  // Replaces the window list (an empty list is the host's programming error).
  void setWindows(std::vector<std::shared_ptr<Window>> windows);
  void setCanOpen(std::function<bool(const std::string&)> canOpen);
  // Every URL opened, in order.
  std::vector<std::string> openedURLs() const;
  // The controller on top of the first window's root view controller, if any.
  std::shared_ptr<ViewController> topViewController() const;

  // Timers scheduled from now on wait for advance() instead of real time.
  void useManualClock();
  // Moves the manual clock on by `duration`, running every firing that comes due on the main
  // queue, in time order; returns once they have run. Not to be called from the main queue.
  void advance(std::chrono::milliseconds duration);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace pelora::platform::ui
