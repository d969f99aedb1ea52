// The application's state as the host reports it (foreground, background), standing in for the
// phone platform's application object and its will-enter-foreground notification. The host calls
// the did/will functions from any thread; observers run later on the main queue.
#pragma once

#include "pelora/core/export.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace pelora::platform {

class PELORA_API AppLifecycle {
 public:
  enum class State { active, inactive, background };
  using ObserverToken = std::uint64_t;

  // The process-wide instance the client observes; never destroyed. Starts `active`.
  static AppLifecycle& shared();

  // A separate instance (tests); pending deliveries stay safe after it is destroyed.
  AppLifecycle();
  ~AppLifecycle();
  AppLifecycle(const AppLifecycle&) = delete;
  AppLifecycle& operator=(const AppLifecycle&) = delete;

  State state() const;

  // The host moved to the background: state becomes `background`.
  void didEnterBackground();
  // The host is coming back: every observer is called on the main queue with the state held at
  // this call; the state then becomes `inactive`.
  void willEnterForeground();
  // The host is in front and taking input: state becomes `active`.
  void didBecomeActive();

  // Registers `observer` for willEnterForeground(); the token removes it.
  ObserverToken addWillEnterForegroundObserver(
      std::function<void(State stateAtNotification)> observer);
  // An observer removed before its delivery runs is skipped; one already running finishes.
  void removeObserver(ObserverToken token);

 private:
  struct Registry;
  std::shared_ptr<Registry> registry_;
};

}  // namespace pelora::platform
