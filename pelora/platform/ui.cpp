#include "pelora/platform/ui.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_session.hpp"

namespace pelora::platform::ui {

// ---- Views --------------------------------------------------------------------------------------

void View::setFrame(Rect frame) {
  frame_ = frame;
  changed();
}

void View::setCenter(Point center) {
  frame_.x = center.x - frame_.width / 2;
  frame_.y = center.y - frame_.height / 2;
  changed();
}

void View::setBackgroundColor(Color color) {
  backgroundColor_ = color;
  changed();
}

void View::setHidden(bool hidden) {
  hidden_ = hidden;
  changed();
}

void View::addSubview(std::shared_ptr<View> view) {
  View& added = *view;
  subviews_.push_back(std::move(view));
  subviewAdded(added);
}

void Label::setText(std::string text) {
  text_ = std::move(text);
  changed();
}

void Label::setTextAlignment(TextAlignment alignment) {
  alignment_ = alignment;
  changed();
}

void Label::setFontSize(double points) {
  fontSize_ = points;
  changed();
}

void Label::setTextColor(Color color) {
  textColor_ = color;
  changed();
}

void Label::setCornerRadius(double radius) {
  cornerRadius_ = radius;
  changed();
}

void WebView::setOpaque(bool opaque) {
  opaque_ = opaque;
  changed();
}

void WebView::loadHTMLString(std::string html) {
  html_ = std::move(html);
  changed();
}

NavigationActionPolicy WebView::navigate(const std::optional<std::string>& url) {
  return navigate(NavigationAction{url, true});
}

NavigationActionPolicy WebView::navigate(const NavigationAction& action) {
  auto delegate = navigationDelegate();
  if (!delegate) return NavigationActionPolicy::allow;
  // A delegate that decides later than this call leaves the navigation to its default.
  auto decided = std::make_shared<NavigationActionPolicy>(NavigationActionPolicy::allow);
  delegate->decidePolicy(*this, action,
                         [decided](NavigationActionPolicy policy) { *decided = policy; });
  return *decided;
}

// ---- View controllers ---------------------------------------------------------------------------

const std::shared_ptr<View>& ViewController::view() {
  if (!view_) {
    view_ = Application::shared()->makeRootView();
    viewDidLoad();
  }
  return view_;
}

void ViewController::present(std::shared_ptr<ViewController> controller, bool animated,
                             std::function<void()> completion) {
  auto application = Application::shared();
  controller->view();
  controller->presenting_ = weak_from_this();
  presented_ = controller;
  application->show(*this, *controller, animated);
  // On screen its root view takes the screen's insets: a change only when there are bars.
  if (controller->view()->safeAreaInsets() != EdgeInsets{}) {
    controller->viewSafeAreaInsetsDidChange();
  }
  if (completion) SerialQueue::main()->async(std::move(completion));
}

void ViewController::dismiss(bool animated, std::function<void()> completion) {
  // A presenting controller dismisses what it presents; a presented one, itself.
  std::shared_ptr<ViewController> gone = presented_;
  std::shared_ptr<ViewController> presenter = shared_from_this();
  if (!gone) {
    gone = shared_from_this();
    presenter = presenting_.lock();
  }
  // Nothing on screen to take off: nothing happens, the completion included.
  if (!presenter || presenter->presented_ != gone) return;
  Application::shared()->hide(*gone, animated);
  presenter->presented_.reset();
  gone->presenting_.reset();
  if (completion) SerialQueue::main()->async(std::move(completion));
}

// ---- Application --------------------------------------------------------------------------------

namespace {

struct SharedApplication {
  std::mutex mutex;
  std::shared_ptr<Application> application;
};

SharedApplication& sharedSlot() {
  static auto* slot = new SharedApplication;  // never destroyed: read by threads during exit()
  return *slot;
}

// Timer arithmetic held at the far end instead of overflowing (a message may ask for a wait of
// centuries, which must not come out as "at once").
std::chrono::milliseconds saturatingSum(std::chrono::milliseconds a, std::chrono::milliseconds b) {
  if (b > std::chrono::milliseconds::zero() && a > std::chrono::milliseconds::max() - b) {
    return std::chrono::milliseconds::max();
  }
  return a + b;
}
std::chrono::nanoseconds inNanoseconds(std::chrono::milliseconds interval) {
  constexpr auto most =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds::max());
  return interval >= most ? std::chrono::nanoseconds::max() : std::chrono::nanoseconds(interval);
}

// A timer on the main queue's timer source.
class MainQueueTimer final : public Timer, public std::enable_shared_from_this<MainQueueTimer> {
 public:
  explicit MainQueueTimer(bool repeats)
      : repeats_(repeats), source_(TimerSource::create(SerialQueue::main())) {}

  void start(std::chrono::milliseconds interval, std::function<void(Timer&)> block) {
    // The source holds the timer while it may fire; invalidating drops that hold.
    source_->setHandler([self = shared_from_this(), block = std::move(block)] {
      if (!self->valid_) return;
      if (!self->repeats_) self->invalidate();
      block(*self);
    });
    source_->schedule(inNanoseconds(interval),
                      repeats_ ? inNanoseconds(interval) : std::chrono::nanoseconds::zero());
    source_->resume();
  }
  void invalidate() override {
    valid_ = false;
    source_->cancel();
  }
  bool isValid() const override { return valid_; }

 private:
  const bool repeats_;
  bool valid_ = true;  // main queue only
  const std::shared_ptr<TimerSource> source_;
};

}  // namespace

std::shared_ptr<Application> Application::shared() {
  auto& slot = sharedSlot();
  std::lock_guard lock(slot.mutex);
  if (!slot.application) slot.application = std::make_shared<HeadlessApplication>();
  return slot.application;
}

void Application::install(std::shared_ptr<Application> application) {
  auto& slot = sharedSlot();
  std::lock_guard lock(slot.mutex);
  slot.application = std::move(application);
}

std::shared_ptr<Timer> Application::scheduledTimer(std::chrono::milliseconds interval, bool repeats,
                                                   std::function<void(Timer&)> block) {
  auto timer = std::make_shared<MainQueueTimer>(repeats);
  timer->start(interval, std::move(block));
  return timer;
}

std::shared_ptr<Label> Application::makeLabel(Rect frame) {
  return std::make_shared<Label>(frame);
}

std::shared_ptr<WebView> Application::makeWebView(Rect frame) {
  return std::make_shared<WebView>(frame);
}

// ---- The headless application -------------------------------------------------------------------

namespace {

// A timer on the headless application's manual clock.
class ManualTimer final : public Timer {
 public:
  ManualTimer(std::chrono::milliseconds due, std::chrono::milliseconds interval, bool repeats,
              std::function<void(Timer&)> block)
      : due(due), interval(interval), repeats(repeats), block(std::move(block)) {}
  void invalidate() override { valid = false; }
  bool isValid() const override { return valid; }

  std::chrono::milliseconds due;
  const std::chrono::milliseconds interval;
  const bool repeats;
  const std::function<void(Timer&)> block;
  std::atomic<bool> valid{true};
};

}  // namespace

struct HeadlessApplication::State {
  Rect screen;
  EdgeInsets safeArea;
  mutable std::mutex mutex;
  std::vector<std::shared_ptr<Window>> windows;
  std::function<bool(const std::string&)> canOpen;
  std::vector<std::string> opened;
  bool manual = false;
  std::chrono::milliseconds now{0};
  std::vector<std::shared_ptr<ManualTimer>> timers;
};

HeadlessApplication::HeadlessApplication(Rect screen, EdgeInsets safeArea)
    : state_(std::make_shared<State>()) {
  state_->screen = screen;
  state_->safeArea = safeArea;
  state_->windows.push_back(std::make_shared<Window>(Window{std::make_shared<ViewController>()}));
}

std::vector<std::shared_ptr<Window>> HeadlessApplication::windows() const {
  std::lock_guard lock(state_->mutex);
  return state_->windows;
}

bool HeadlessApplication::canOpenURL(const std::string& url) const {
  std::function<bool(const std::string&)> canOpen;
  {
    std::lock_guard lock(state_->mutex);
    canOpen = state_->canOpen;
  }
  if (canOpen) return canOpen(url);
  // Like a phone with a browser and nothing else: web links only.
  return normalizedURL(url).has_value();
}

void HeadlessApplication::openURL(const std::string& url) {
  std::lock_guard lock(state_->mutex);
  state_->opened.push_back(url);
}

std::shared_ptr<Timer> HeadlessApplication::scheduledTimer(std::chrono::milliseconds interval,
                                                           bool repeats,
                                                           std::function<void(Timer&)> block) {
  std::unique_lock lock(state_->mutex);
  if (!state_->manual) {
    lock.unlock();
    return Application::scheduledTimer(interval, repeats, std::move(block));
  }
  auto timer = std::make_shared<ManualTimer>(saturatingSum(state_->now, interval), interval,
                                             repeats, std::move(block));
  state_->timers.push_back(timer);
  return timer;
}

std::shared_ptr<View> HeadlessApplication::makeRootView() {
  auto view = std::make_shared<View>(state_->screen);
  view->setSafeAreaInsets(state_->safeArea);
  return view;
}

void HeadlessApplication::setWindows(std::vector<std::shared_ptr<Window>> windows) {
  std::lock_guard lock(state_->mutex);
  state_->windows = std::move(windows);
}

void HeadlessApplication::setCanOpen(std::function<bool(const std::string&)> canOpen) {
  std::lock_guard lock(state_->mutex);
  state_->canOpen = std::move(canOpen);
}

std::vector<std::string> HeadlessApplication::openedURLs() const {
  std::lock_guard lock(state_->mutex);
  return state_->opened;
}

std::shared_ptr<ViewController> HeadlessApplication::topViewController() const {
  const auto list = windows();
  if (list.empty() || !list.front()->rootViewController) return nullptr;
  auto top = list.front()->rootViewController->presentedViewController();
  while (top && top->presentedViewController()) top = top->presentedViewController();
  return top;
}

void HeadlessApplication::useManualClock() {
  std::lock_guard lock(state_->mutex);
  state_->manual = true;
}

void HeadlessApplication::advance(std::chrono::milliseconds duration) {
  std::unique_lock lock(state_->mutex);
  const auto target = saturatingSum(state_->now, duration);
  for (;;) {
    std::erase_if(state_->timers, [](const auto& timer) { return !timer->valid; });
    auto next = std::min_element(state_->timers.begin(), state_->timers.end(),
                                 [](const auto& a, const auto& b) { return a->due < b->due; });
    if (next == state_->timers.end() || (*next)->due > target) break;
    const std::shared_ptr<ManualTimer> timer = *next;
    state_->now = timer->due;
    if (timer->repeats) {
      timer->due = saturatingSum(timer->due, timer->interval);
    } else {
      timer->valid = false;
    }
    lock.unlock();
    // As on the phone, a timer runs on the main queue; whatever it queued there runs before the
    // clock moves on.
    SerialQueue::main()->sync([&] {
      if (timer->repeats ? timer->valid.load() : true) timer->block(*timer);
    });
    SerialQueue::main()->sync([] {});
    lock.lock();
  }
  state_->now = target;
}

}  // namespace pelora::platform::ui
