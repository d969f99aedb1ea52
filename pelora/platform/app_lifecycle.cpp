#include "pelora/platform/app_lifecycle.hpp"

#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "pelora/platform/dispatch.hpp"

namespace pelora::platform {

// Shared with queued deliveries, so that a delivery outliving its AppLifecycle finds the observer
// table still there (and empty).
struct AppLifecycle::Registry {
  std::mutex mutex;
  State state = State::active;
  ObserverToken nextToken = 1;
  std::map<ObserverToken, std::shared_ptr<const std::function<void(State)>>> observers;
};

AppLifecycle& AppLifecycle::shared() {
  static auto* instance = new AppLifecycle;  // leaked: deliveries may still run during exit()
  return *instance;
}

AppLifecycle::AppLifecycle() : registry_(std::make_shared<Registry>()) {}

AppLifecycle::~AppLifecycle() {
  decltype(Registry::observers) removed;  // destroyed outside the lock
  std::lock_guard lock(registry_->mutex);
  removed.swap(registry_->observers);
}

AppLifecycle::State AppLifecycle::state() const {
  std::lock_guard lock(registry_->mutex);
  return registry_->state;
}

void AppLifecycle::didEnterBackground() {
  std::lock_guard lock(registry_->mutex);
  registry_->state = State::background;
}

void AppLifecycle::willEnterForeground() {
  std::vector<ObserverToken> tokens;
  State stateAtNotification;
  {
    std::lock_guard lock(registry_->mutex);
    stateAtNotification = registry_->state;
    registry_->state = State::inactive;
    for (const auto& entry : registry_->observers) tokens.push_back(entry.first);
  }
  // One task per observer, so an observer that throws does not cost the others their call.
  const auto mainQueue = SerialQueue::main();
  for (const ObserverToken token : tokens) {
    mainQueue->async([registry = registry_, token, stateAtNotification] {
      std::shared_ptr<const std::function<void(State)>> observer;
      {
        std::lock_guard lock(registry->mutex);
        const auto found = registry->observers.find(token);
        if (found == registry->observers.end()) return;
        observer = found->second;
      }
      if (*observer) (*observer)(stateAtNotification);
    });
  }
}

void AppLifecycle::didBecomeActive() {
  std::lock_guard lock(registry_->mutex);
  registry_->state = State::active;
}

AppLifecycle::ObserverToken AppLifecycle::addWillEnterForegroundObserver(
    std::function<void(State stateAtNotification)> observer) {
  auto shared = std::make_shared<const std::function<void(State)>>(std::move(observer));
  std::lock_guard lock(registry_->mutex);
  const ObserverToken token = registry_->nextToken++;
  registry_->observers.emplace(token, std::move(shared));
  return token;
}

void AppLifecycle::removeObserver(ObserverToken token) {
  std::shared_ptr<const std::function<void(State)>> removed;  // destroyed outside the lock
  std::lock_guard lock(registry_->mutex);
  const auto found = registry_->observers.find(token);
  if (found == registry_->observers.end()) return;
  removed = std::move(found->second);
  registry_->observers.erase(found);
}

}  // namespace pelora::platform
