#include "pelora/messages/iam_manager.hpp"
#include "pelora/core/fatal_error.hpp"

#include <algorithm>
#include <cctype>

#include "pelora/core/service_hosts.hpp"
#include "pelora/messages/iam_full_screen_view_controller.hpp"
#include "pelora/platform/console.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/http_status.hpp"
#include "pelora/platform/logging.hpp"

namespace pelora {
namespace {

// How many IAM callbacks the current thread is inside.
thread_local int callbackDepth = 0;

using namespace std::chrono_literals;

void print(std::string_view line) {
  platform::log::debugPrint(line);
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// A long poll is held open by the service until it has a message: a minute of silence ends it, and
// so does the pull time limit, so that a service dripping its answer cannot hold it for ever.
platform::HttpSessionOptions sessionOptions(const IAMManager::Setup& setup) {
  platform::HttpSessionOptions options;
  options.requestTimeout = 60s;
  options.resourceTimeout =
      setup.pullTimeLimit > 0ms ? setup.pullTimeLimit : IAMManager::kPullTimeLimit;
  options.ephemeral = false;
  options.connectTo = setup.connectTo;
  options.caBundle = setup.caBundle;
  options.proxy = setup.proxy;
  return options;
}

// One component of the pull path: percent-encoded, so that a key or id holding "/", "?", "#",
// spaces or line breaks stays one component; "." and ".." also lose their meaning as path steps.
// Ordinary keys and ids keep their bytes.
std::string pathComponent(const std::string& text) {
  if (text == "." || text == "..") return text == "." ? "%2E" : "%2E%2E";
  return platform::percentEncoded(text);
}

std::shared_ptr<platform::SerialQueue> retryQueue() {
  static const auto queue =
      platform::SerialQueue::create("iam." + std::string(platform::queueLabelSuffix));
  return queue;
}

}  // namespace

std::shared_ptr<IAMManager> IAMManager::shared() {
  static auto* instance = new std::shared_ptr<IAMManager>(std::make_shared<IAMManager>());
  return *instance;
}

IAMManager::IAMManager() : hostDomain_(productionIAMBaseURL), jitter_(std::random_device{}()) {}

std::chrono::milliseconds IAMManager::backoffWait(std::uint32_t failures, double unit,
                                                  std::chrono::milliseconds start,
                                                  std::chrono::milliseconds cap) noexcept {
  if (failures <= kImmediateRetries || start <= 0ms) return 0ms;
  cap = std::max(cap, start);
  auto step = start;
  for (auto doublings = failures - kImmediateRetries - 1; doublings > 0 && step < cap;
       --doublings) {
    step = step > cap / 2 ? cap : step * 2;
  }
  // Jitter over the step's upper half: devices that lost the service together do not come back
  // in step, and no wait is shorter than half its step, which keeps the pulls as rare as the
  // doubling means them to be.
  if (!(unit > 0)) unit = 0;
  const auto half = step - step / 2;
  const auto above = static_cast<double>((step - half).count() + 1) * unit;
  return std::min(step, half + std::chrono::milliseconds(static_cast<std::int64_t>(above)));
}

std::uint64_t IAMManager::start(Setup setup) {
  print("IAM : Init -enableIAM");
  auto options = sessionOptions(setup);
  auto session = platform::HttpSession::create(options);
  std::shared_ptr<platform::HttpTask> previous;
  std::shared_ptr<platform::TimerSource> retry;
  std::uint64_t token = 0;
  {
    std::lock_guard lock(mutex_);
    hostDomain_ = std::move(setup.hostDomain);
    workSpaceId_ = std::move(setup.workSpaceId);
    peloraUserId_ = std::move(setup.peloraUserId);
    retryDelay_ = setup.retryDelay;
    backoffStart_ = setup.backoffStart;
    backoffCap_ = setup.backoffCap;
    failuresInARow_ = 0;
    sessionOptions_ = std::move(options);
    stopped_ = false;
    defaultSession_ = std::move(session);
    token = ++generation_;  // a loop of an earlier start ends with its pull
    previous = std::move(dataTask_);
    retry = std::move(retryTimer_);
  }
  if (retry) retry->cancel();
  if (previous) previous->cancel();
  print("--- Start Polling ----");
  longPoll();
  return token;
}

void IAMManager::longPoll() {
  startPolling();
}

void IAMManager::stopPolling(std::optional<std::uint64_t> startedAs) {
  std::shared_ptr<platform::HttpTask> task;
  std::shared_ptr<platform::HttpSession> session;
  std::vector<std::weak_ptr<platform::HttpTask>> notices;
  std::shared_ptr<platform::TimerSource> retry;
  std::vector<std::shared_ptr<platform::ui::Timer>> showTimers;
  {
    std::lock_guard lock(mutex_);
    if (startedAs && *startedAs != generation_) return;
    ++generation_;
    stopped_ = true;
    task = std::move(dataTask_);
    session = std::move(defaultSession_);
    notices = std::move(noticeTasks_);
    retry = std::move(retryTimer_);
    showTimers = std::move(showTimers_);
    while (dequeueLocked()) {
    }
  }
  // A message waiting for its time is not shown, and its timers let the timer thread go; the
  // manager is free again for a later start. One on screen stays until it closes.
  for (const auto& timer : showTimers) {
    if (timer) timer->invalidate();
  }
  if (!showTimers.empty()) {
    std::weak_ptr<IAMManager> weak = weak_from_this();
    platform::SerialQueue::main()->async([weak] {
      auto self = weak.lock();
      if (!self || !self->pendingShow_) return;
      self->pendingShow_ = false;
      self->isPresenting_ = false;
    });
  }
  // A cancelled wait leaves the timer thread free to end; cancelled transfers let the sessions'
  // worker threads end now rather than when the service lets go.
  if (retry) retry->cancel();
  if (task) task->cancel();
  for (const auto& notice : notices) {
    if (auto running = notice.lock()) running->cancel();
  }
  session.reset();
  // A completion that passed its generation check just before may still be starting the next
  // pull with its own hold on the session; it sees the new generation and lets go. Not from such
  // a callback itself, which would wait for itself.
  if (callbackDepth > 0) return;
  std::unique_lock lock(mutex_);
  callbacksDone_.wait_for(lock, std::chrono::seconds(2), [&] { return runningCallbacks_ == 0; });
}

// Counts a completion or retry of this manager as running while it lives.
class IAMManager::CallbackScope {
 public:
  explicit CallbackScope(IAMManager& manager) : manager_(manager) {
    ++manager_.runningCallbacks_;  // under the manager's lock
    ++callbackDepth;
  }
  ~CallbackScope() {
    --callbackDepth;
    std::lock_guard lock(manager_.mutex_);
    if (--manager_.runningCallbacks_ == 0) manager_.callbacksDone_.notify_all();
  }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

 private:
  IAMManager& manager_;
};

bool IAMManager::isPolling() const {
  std::lock_guard lock(mutex_);
  return dataTask_ != nullptr;
}

std::size_t IAMManager::queuedCount() const {
  std::lock_guard lock(mutex_);
  return mQueue_.count();
}

void IAMManager::startPolling() {
  std::unique_lock lock(mutex_);
  if (workSpaceId_.empty()) {
    lock.unlock();
    print("--- Error : Pelora SDK isn't initialized ---");
    return;
  }
  const std::string text = hostDomain_ + "/push/push/pull/" + pathComponent(workSpaceId_) + "/" +
                           pathComponent(peloraUserId_) + "/";
  auto stored = std::move(dataTask_);
  const auto session = defaultSession_;
  const auto generation = generation_;
  lock.unlock();
  print(text);
  if (stored) stored->cancel();
  const auto url = platform::normalizedURL(text);
  if (!url) {
    platform::printLine("Pelora: in-app messages are off: \"" + text +
                            "\" is not a valid pull address (check the message host)",
                        LogLevel::warning);
    return;
  }
  if (!session) return;

  platform::HttpRequest request;
  request.purpose = platform::HttpPurpose::messagePull;
  request.url = *url;
  std::weak_ptr<IAMManager> weak = weak_from_this();
  auto holder = std::make_shared<std::weak_ptr<platform::HttpTask>>();
  auto task = session->dataTask(
      std::move(request), [weak, holder, generation](const auto& response, const auto& error) {
        auto self = weak.lock();
        if (!self) return;
        std::optional<CallbackScope> running;
        {
          std::lock_guard lock(self->mutex_);
          if (generation != self->generation_) return;  // stopped or restarted meanwhile
          running.emplace(*self);
        }
        self->pullFinished(holder->lock(), response, error, generation);
      });
  *holder = task;
  {
    std::lock_guard relock(mutex_);
    if (generation != generation_) return;  // stopped while this pull was being made
    dataTask_ = task;
  }
  ++pullsStarted_;
  task->resume();
}

void IAMManager::pullFinished(const std::shared_ptr<platform::HttpTask>& task,
                              const std::optional<platform::HttpResponse>& response,
                              const std::optional<platform::HttpError>& error,
                              std::uint64_t generation) {
  {
    std::lock_guard lock(mutex_);
    if (dataTask_ == task) dataTask_.reset();
  }
  bool failed = error.has_value();
  if (!error) {
    // Only a 200 carries a message list; any other answer counts as a failed pull.
    if (response && response->status == 200) {
      handleBody(response->body);
    } else {
      failed = true;
    }
  } else {
    appendError("DataTask error: " + error->description + "\n");
  }
  print("---End Start Polling ---");
  if (error && error->code == platform::HttpError::Code::cancelled) {
    appendError("Stop Service : " + error->description + "\n");
    return;
  }
  print(error ? "Restart Polling ----: Because of Error" : "-- Restart Polling ----");

  std::chrono::milliseconds delay{0};
  bool backingOff = false;
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_) return;  // a later start pulls on its own
    if (!failed) {
      failuresInARow_ = 0;
    } else if (failuresInARow_ < UINT32_MAX) {
      ++failuresInARow_;
    }
    if (failed && retryDelay_ > 0ms) {
      delay = retryDelay_;  // the host's fixed choice
    } else if (failed) {
      delay = backoffWait(failuresInARow_, std::uniform_real_distribution<double>()(jitter_),
                          backoffStart_, backoffCap_);
      backingOff = failuresInARow_ == kImmediateRetries + 1;
    }
  }
  if (backingOff) {
    // Once per run of failures: each failure is in the error text already.
    print("Pulls failed " + std::to_string(kImmediateRetries + 1) +
          " times in a row: waiting longer between pulls until one succeeds");
  }
  if (delay <= 0ms) {
    longPoll();
    return;
  }
  // A timer rather than a plain delayed task, so that stopping can call the wait off.
  std::weak_ptr<IAMManager> weak = weak_from_this();
  auto retry = platform::TimerSource::create(retryQueue());
  retry->setHandler([weak, generation] {
    auto self = weak.lock();
    if (!self) return;
    std::optional<CallbackScope> running;
    {
      std::lock_guard lock(self->mutex_);
      if (generation != self->generation_) return;
      running.emplace(*self);
    }
    self->longPoll();
  });
  retry->schedule(delay, std::chrono::nanoseconds::zero());
  std::shared_ptr<platform::TimerSource> replaced;
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_) return;  // stopped meanwhile: the timer goes unstarted
    replaced = std::exchange(retryTimer_, retry);
  }
  if (replaced) replaced->cancel();
  retry->resume();
}

void IAMManager::appendError(const std::string& text) {
  // The text only ever grows, and is printed whole; an unreachable service adds to it with every
  // failed pull for as long as it stays away, so only its most recent part is kept.
  constexpr std::size_t kKept = 16 * 1024;
  std::string message;
  {
    std::lock_guard lock(mutex_);
    errorMessage_ += text;
    if (errorMessage_.size() > 2 * kKept) errorMessage_.erase(0, errorMessage_.size() - kKept);
    if (platform::log::debugEnabled()) message = errorMessage_;
  }
  print(message);
}

void IAMManager::handleBody(const std::string& body) {
  std::optional<IAMResponse> answer;
  if (!body.empty()) {
    try {
      answer = decodeFromString<IAMResponse>(body);
    } catch (const std::exception&) {
      // Not a response: dropped.
    }
  }
  if (answer && answer->code != "OK") {
    print(description(*answer));
  } else if (answer) {
    if (auto data = answer->decodedData()) {
      print("Type: " + description(data->activeType));
      print("Value: " + description(data->activeValue));
      enqueue(std::move(*data));
    }
  }
  bool waiting = false;
  {
    std::lock_guard lock(mutex_);
    waiting = !mQueue_.isEmpty();
  }
  if (!waiting) return;
  std::weak_ptr<IAMManager> weak = weak_from_this();
  platform::SerialQueue::main()->async([weak] {
    if (auto self = weak.lock()) self->showNext();
  });
}

// What a message costs while it waits: its texts.
std::size_t IAMManager::sizeOf(const IAMData& data) noexcept {
  std::size_t size = sizeof data;
  for (const auto* text :
       {&data.activeType, &data.name, &data.actionOpen, &data.actionClick, &data.message}) {
    if (*text) size += (*text)->size();
  }
  return size;
}

void IAMManager::enqueue(IAMData data) {
  std::uint64_t dropped = 0;
  {
    std::lock_guard lock(mutex_);
    queuedBytes_ += sizeOf(data);
    mQueue_.enqueue(std::move(data));
    while (mQueue_.count() > kMaxQueuedMessages || queuedBytes_ > kMaxQueuedBytes) {
      dequeueLocked();
      dropped = ++dropped_;
    }
  }
  // Said at the first drop and then at each power of ten, so that a flood cannot flood the log.
  if (dropped == 0) return;
  std::uint64_t mark = 1;
  while (mark < dropped && mark <= UINT64_MAX / 10) mark *= 10;
  if (mark != dropped) return;
  platform::printLine("Pelora: " + std::to_string(dropped) +
                          " in-app messages dropped unshown so far: the service sent more than " +
                          std::to_string(kMaxQueuedMessages) + " (or " +
                          std::to_string(kMaxQueuedBytes / (1024 * 1024)) +
                          " MiB) faster than they could be shown",
                      LogLevel::warning);
}

std::optional<IAMData> IAMManager::dequeueLocked() {
  auto first = mQueue_.dequeue();
  if (first) queuedBytes_ -= std::min(queuedBytes_, sizeOf(*first));
  return first;
}

void IAMManager::showNext() {
  if (isPresenting_) {
    print("Caching ...");
    return;
  }
  std::optional<IAMData> next;
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;  // nothing new appears once polling has been stopped
    next = dequeueLocked();
  }
  if (!next) return;
  auto application = platform::ui::Application::shared();
  const bool delayed = next->activeType && lowercased(*next->activeType) == "time" &&
                       next->activeValue && *next->activeValue >= 1;
  isPresenting_ = true;
  if (!delayed) {
    present(*next, "IAM Ads Immediately");
    return;
  }
  std::weak_ptr<IAMManager> weak = weak_from_this();
  // The service's number, however large, must not overflow into "at once".
  const std::int64_t seconds = std::min<std::int64_t>(*next->activeValue, kMaxShowDelay.count());
  pendingShow_ = true;
  auto show = application->scheduledTimer(std::chrono::seconds(seconds), false,
                                          [weak, data = *next](platform::ui::Timer& timer) {
                                            if (auto self = weak.lock()) {
                                              self->pendingShow_ = false;
                                              self->present(data, "IAM Ads Timer");
                                            }
                                            timer.invalidate();
                                          });
  countDown_ = seconds;
  auto countdown = application->scheduledTimer(1s, true, [weak](platform::ui::Timer& timer) {
    auto self = weak.lock();
    if (!self) {
      timer.invalidate();
      return;
    }
    self->countDown_ -= 1;
    if (self->countDown_ < 1) {
      print("Stop " + std::to_string(self->countDown_) + " second");
      timer.invalidate();
    }
    print("Waiting " + std::to_string(self->countDown_) + " second");
  });
  std::lock_guard lock(mutex_);
  showTimers_ = {std::move(show), std::move(countdown)};
}

void IAMManager::present(const IAMData& data, const std::string& title) {
  auto controller = std::make_shared<IAMFullScreenViewController>();
  controller->modalPresentationStyle = platform::ui::ModalPresentationStyle::overCurrentContext;
  controller->modalTransitionStyle = platform::ui::ModalTransitionStyle::crossDissolve;
  controller->titleTxt = title;
  controller->iamData = data;
  const auto windows = platform::ui::Application::shared()->windows();
  if (windows.empty()) {
    fatalError("IAMManager: the application has no window to present a message in");
  }
  const auto root = windows.front()->rootViewController;
  // Without a root view controller the message is lost, and nothing more is shown until a
  // dismissIAM().
  if (!root) return;
  root->present(controller, true, [] { print("Presenting ..."); });
}

void IAMManager::dismissIAM() {
  print("dismissIAM ...");
  std::weak_ptr<IAMManager> weak = weak_from_this();
  platform::ui::Application::shared()->scheduledTimer(300ms, false, [weak](platform::ui::Timer&) {
    auto self = weak.lock();
    if (!self) return;
    print("-- Finished ...");
    self->isPresenting_ = false;
    self->showNext();
  });
}

void IAMManager::activeOpenIAM(const IAMData& data) {
  print("activeOpenIAM");
  const auto url = platform::normalizedURL(data.actionOpen.value_or(""));
  if (!url) return;
  std::shared_ptr<platform::HttpSession> session;
  {
    std::lock_guard lock(mutex_);
    // Stopped (a shutdown, or the person's choice): nothing more goes to the service.
    if (stopped_) return;
    session = defaultSession_;
    // Polling never started: a session for this request alone, whose thread ends with it.
    if (!session) session = platform::HttpSession::create(sessionOptions_);
  }
  platform::HttpRequest request;
  request.purpose = platform::HttpPurpose::link;
  request.method = "GET";
  request.url = *url;
  request.timeout = 60s;
  print(platform::cURL(request, true));
  auto task = session->dataTask(std::move(request), [](const auto& response, const auto& error) {
    if (error) {
      print("Error uploading request " + error->description);
      return;
    }
    const int status = response ? response->status : 0;
    const std::string complaint = platform::statusComplaint(status);
    print(complaint.empty() ? "OK" : complaint);
  });
  {
    std::lock_guard lock(mutex_);
    std::erase_if(noticeTasks_, [](const auto& notice) { return notice.expired(); });
    noticeTasks_.push_back(task);
  }
  task->resume();
}

}  // namespace pelora
