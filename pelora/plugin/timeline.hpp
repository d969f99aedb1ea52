// Timeline: the stages an event runs through (before, destination, after) and their plugins.
// Called from any thread: each stage keeps an immutable snapshot of its plugin list, so events run
// without a lock while plugins are added or removed elsewhere.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string_view>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/plugin/plugin.hpp"

namespace pelora {

// One stage's plugin list as it was when taken; other threads may add and remove plugins
// meanwhile. Iterate it where it is returned, `for (const auto& p : mediator.plugins())`, which
// keeps it alive for the whole loop. It has no operator* and no begin() on a temporary, so that a
// loop can never run over a list that its own snapshot has already released.
class PELORA_API PluginSnapshot {
 public:
  using List = std::vector<std::shared_ptr<Plugin>>;
  using const_iterator = List::const_iterator;
  // A stage's list with what the hot path asks of it, worked out once when the list changes.
  struct Stage {
    List plugins;
    std::vector<bool> isDestination;  // per plugin: whether it is a DestinationPlugin
    bool allDestinations = true;
  };

  explicit PluginSnapshot(std::shared_ptr<const Stage> stage) noexcept : stage_(std::move(stage)) {}

  const_iterator begin() const& noexcept { return stage_->plugins.begin(); }
  const_iterator end() const& noexcept { return stage_->plugins.end(); }
  const_iterator begin() const&& = delete;
  const_iterator end() const&& = delete;
  std::size_t size() const noexcept { return stage_->plugins.size(); }
  bool empty() const noexcept { return stage_->plugins.empty(); }
  // Whether the plugin at `index` is a DestinationPlugin.
  bool isDestination(std::size_t index) const { return stage_->isDestination[index]; }
  // Whether every plugin of the stage is a DestinationPlugin (true when there are none).
  bool allDestinations() const noexcept { return stage_->allDestinations; }

 private:
  std::shared_ptr<const Stage> stage_;
};

// The plugins of one stage, run in the order they were added.
class PELORA_API Mediator {
 public:
  using PluginList = PluginSnapshot::List;

  void add(std::shared_ptr<Plugin> plugin);
  // Removes every entry that is this very object; returns how many there were.
  std::size_t remove(const Plugin* plugin);
  // The current list.
  PluginSnapshot plugins() const;
  // Whether the stage has no plugin, without taking a snapshot (events pass empty stages often).
  bool empty() const noexcept { return empty_.load(std::memory_order_acquire); }
  // When every plugin is a destination, hands each a copy of `event` (which holds one) and
  // returns true; otherwise does nothing and returns false. With `lastTakesIt`, the last
  // destination runs on `event` itself (nobody after it needs it), which leaves it unspecified.
  template <class E>
  bool runOnCopies(std::optional<E>& event, bool lastTakesIt = false) const;

  // Each plugin gets the previous one's result; destinations only get copies and cannot change or
  // drop the event for the others. Nothing reaches the rest once a plugin drops the event.
  template <class E>
  std::optional<E> execute(std::optional<E> event) const {
    run(event);
    return event;
  }
  // execute() on `event` in place, which spares the hot path a move per stage.
  template <class E>
  void run(std::optional<E>& event) const;

 private:
  void replace(PluginList list);

  // Guards plugins_. A plain mutex: ThreadSanitizer reports races inside GCC 12's
  // std::atomic<std::shared_ptr>, and a report we cannot tell from a real one is no help.
  // Readers share it: recording threads never wait for each other here.
  mutable std::shared_mutex mutex_;
  std::shared_ptr<const PluginSnapshot::Stage> plugins_ =
      std::make_shared<const PluginSnapshot::Stage>();
  std::atomic<bool> empty_{true};
};

class PELORA_API Timeline {
 public:
  // Mediators for before, destination and after only: enrichment and utility plugins are not kept.
  Timeline();

  const std::map<PluginType, std::shared_ptr<Mediator>>& plugins() const noexcept {
    return plugins_;
  }

  // Appends the plugin to its stage (when the stage exists) and, when its client already holds
  // settings, hands them over with UpdateType::initial.
  void add(const std::shared_ptr<Plugin>& plugin);
  // Shuts down and removes every entry that is this very object.
  void remove(const std::shared_ptr<Plugin>& plugin);
  // Calls `closure` on every plugin in stage order, descending into destinations' timelines.
  void apply(const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const;
  // Whether any plugin here reads the values of the events it gets (Plugin::readsEventValues).
  bool readsEventValues() const;
  // Runs one stage.
  template <class E>
  std::optional<E> applyPlugins(PluginType type, std::optional<E> event) const {
    runStage(type, event);
    return event;
  }
  // applyPlugins() on `event` in place.
  template <class E>
  void runStage(PluginType type, std::optional<E>& event) const {
    auto it = plugins_.find(type);
    if (it != plugins_.end()) it->second->run(event);
  }
  // Runs before, then destination on the before result (its own result discarded), then after on
  // the before result.
  template <class E>
  std::optional<E> process(std::optional<E> event) const {
    runAll(event, /*resultNeeded=*/true);
    return event;
  }
  // process() for a caller that has no use for the result, on `event` in place (left
  // unspecified): when no after-stage plugin needs the event either, the last destination runs
  // on it instead of a copy.
  template <class E>
  void deliver(std::optional<E>&& event) const {
    runAll(event, /*resultNeeded=*/false);
  }

  // The first plugin (in stage order) that is a T.
  template <class T>
  std::shared_ptr<T> find() const {
    for (PluginType type : allPluginTypes) {
      auto it = plugins_.find(type);
      if (it == plugins_.end()) continue;
      for (const auto& plugin : it->second->plugins()) {
        if (auto match = std::dynamic_pointer_cast<T>(plugin)) return match;
      }
    }
    return nullptr;
  }
  // The first destination-stage DestinationPlugin whose key() is `key`.
  std::shared_ptr<DestinationPlugin> find(std::string_view key) const;

 private:
  // process() and deliver(): destinations get copies of their own, so the stage's event needs a
  // copy only when another kind of plugin shares the stage.
  template <class E>
  void runAll(std::optional<E>& event, bool resultNeeded) const {
    runStage(PluginType::before, event);
    if (!event) return;
    auto after = plugins_.find(PluginType::after);
    const bool lastTakesIt = !resultNeeded && (after == plugins_.end() || after->second->empty());
    auto destinations = plugins_.find(PluginType::destination);
    if (destinations != plugins_.end() && !destinations->second->runOnCopies(event, lastTakesIt)) {
      auto copy = event;
      destinations->second->run(copy);
    } else if (lastTakesIt) {
      return;  // nobody needs what the last destination left
    }
    runStage(PluginType::after, event);
  }

  const std::map<PluginType, std::shared_ptr<Mediator>> plugins_;
};

template <class E>
void Mediator::run(std::optional<E>& event) const {
  if (empty()) return;
  const PluginSnapshot list = plugins();
  std::size_t index = 0;
  for (const auto& plugin : list) {
    if (!event) return;
    if (list.isDestination(index++)) {
      (void)plugin->execute(std::optional<E>(event));
    } else {
      plugin->executeInPlace(event);
    }
  }
}

template <class E>
bool Mediator::runOnCopies(std::optional<E>& event, bool lastTakesIt) const {
  const PluginSnapshot list = plugins();
  if (!list.allDestinations()) return false;
  std::size_t left = list.size();
  for (const auto& plugin : list) {
    if (--left == 0 && lastTakesIt) {
      plugin->executeInPlace(event);
    } else {
      (void)plugin->execute(std::optional<E>(event));
    }
  }
  return true;
}

}  // namespace pelora
