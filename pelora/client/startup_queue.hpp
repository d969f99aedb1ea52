// StartupQueue: a before-stage plugin that holds events while the client's System state says it
// is not running and replays them, oldest first, once it is. Events arrive on any thread; the
// System subscription runs on the main queue; the held list is touched only on syncQueue.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

#include "pelora/core/export.h"
#include "pelora/platform/concurrency.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/plugin/plugin.hpp"
#include "pelora/state/store.hpp"

namespace pelora {

struct System;

class PELORA_API StartupQueue : public Plugin,
                                public Subscriber,
                                public std::enable_shared_from_this<StartupQueue> {
 public:
  // Only the newest this many held events survive.
  static constexpr std::size_t maxSize = 1000;

  StartupQueue();

  PluginType type() const override { return PluginType::before; }
  // Holds and replays events; never looks inside them.
  bool readsEventValues() const override { return false; }
  bool running() const { return running_.get(); }
  void setRunning(bool running) { running_.set(running); }

  std::shared_ptr<PluginHost> analytics() const override;
  // A client subscribes this plugin to later System changes (not to the current state).
  void setAnalytics(std::shared_ptr<PluginHost> analytics) override;

  // While running: the event unchanged. Otherwise the event is held and nothing is returned.
  std::optional<TrackEvent> execute(std::optional<TrackEvent> event) override;
  std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) override;
  // Once running, events pass untouched.
  void executeInPlace(std::optional<TrackEvent>& event) override;
  void executeInPlace(std::optional<MonitorEvent>& event) override;

  // Events held now.
  std::size_t heldCount() const;

 private:
  using HeldEvent = std::variant<TrackEvent, MonitorEvent>;

  template <class E>
  std::optional<E> hold(std::optional<E> event);
  // Whether events go on rather than being held.
  bool passes() const;
  void runningUpdate(const System& state);
  // Only on syncQueue_.
  void replay();

  Atomic<bool> running_{false};
  const std::shared_ptr<platform::SerialQueue> syncQueue_;
  std::deque<HeldEvent> queuedEvents_;  // touched only on syncQueue_
  mutable std::mutex mutex_;            // guards analytics_
  std::shared_ptr<PluginHost> analytics_;
};

}  // namespace pelora
