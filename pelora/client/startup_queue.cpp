#include "pelora/client/startup_queue.hpp"

#include <string>

#include "pelora/client/analytics.hpp"
#include "pelora/state/system.hpp"

namespace pelora {

StartupQueue::StartupQueue()
    : syncQueue_(platform::SerialQueue::create("startupQueue." +
                                               std::string(platform::queueLabelSuffix))) {}

std::shared_ptr<PluginHost> StartupQueue::analytics() const {
  std::lock_guard lock(mutex_);
  return analytics_;
}

void StartupQueue::setAnalytics(std::shared_ptr<PluginHost> analytics) {
  {
    std::lock_guard lock(mutex_);
    analytics_ = analytics;
  }
  if (!analytics) return;
  // The store keeps its subscribers weakly; the handler must not keep this plugin alive either.
  std::weak_ptr<StartupQueue> weak = weak_from_this();
  analytics->store()->subscribe<System>(shared_from_this(), false, platform::SerialQueue::main(),
                                        [weak](const System& state) {
                                          if (auto self = weak.lock()) self->runningUpdate(state);
                                        });
}

void StartupQueue::runningUpdate(const System& state) {
  running_.set(state.running);
  if (state.running) syncQueue_->sync([&] { replay(); });
}

void StartupQueue::replay() {
  // The startup queue is the client's own plugin: it replays through the client's timeline.
  auto client = std::dynamic_pointer_cast<PeloraAnalytics>(analytics());
  std::deque<HeldEvent> events;
  events.swap(queuedEvents_);
  if (!client) return;  // nobody to hand them to: they are lost
  for (auto& held : events) {
    std::visit(
        [&](auto& event) {
          using E = std::decay_t<decltype(event)>;
          (void)client->timeline()->process(std::optional<E>(std::move(event)));
        },
        held);
  }
}

bool StartupQueue::passes() const {
  // The replay runs events back through this plugin on syncQueue: they pass, whatever the flag
  // says by then, since waiting for syncQueue there could never end.
  return running_.get() || syncQueue_->isCurrent();
}

template <class E>
std::optional<E> StartupQueue::hold(std::optional<E> event) {
  if (passes()) return event;
  if (!event) return std::nullopt;
  bool held = false;
  syncQueue_->sync([&] {
    // Running may have begun since passes() looked, and its replay may be over already: an event
    // held now would wait for a replay that never comes. Nothing older waiting means nothing to
    // keep order with, so the event goes on instead. (With older events waiting, a replay is
    // still to come: running is set before the replay is queued.)
    if (running_.get() && queuedEvents_.empty()) return;
    if (queuedEvents_.size() >= maxSize) queuedEvents_.pop_front();
    queuedEvents_.emplace_back(std::move(*event));
    held = true;
  });
  if (held) return std::nullopt;
  return event;
}

std::optional<TrackEvent> StartupQueue::execute(std::optional<TrackEvent> event) {
  return hold(std::move(event));
}

std::optional<MonitorEvent> StartupQueue::execute(std::optional<MonitorEvent> event) {
  return hold(std::move(event));
}

void StartupQueue::executeInPlace(std::optional<TrackEvent>& event) {
  if (!passes()) event = hold(std::move(event));
}

void StartupQueue::executeInPlace(std::optional<MonitorEvent>& event) {
  if (!passes()) event = hold(std::move(event));
}

std::size_t StartupQueue::heldCount() const {
  return syncQueue_->sync([&] { return queuedEvents_.size(); });
}

}  // namespace pelora
