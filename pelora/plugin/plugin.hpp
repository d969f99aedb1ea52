// Plugins: the unit of extension. Every recorded event runs through a Timeline of plugins grouped
// by stage; destination plugins own a timeline of their own. A plugin always hands back the same
// event type it received: `execute` has one overload per event record.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "pelora/core/events.hpp"
#include "pelora/core/export.h"
#include "pelora/plugin/plugin_host.hpp"
#include "pelora/state/settings.hpp"

namespace pelora {

class Timeline;

enum class PluginType : int { before = 0, enrichment = 1, destination = 2, after = 3, utility = 4 };
// Every stage, in the order every walk over stages uses.
inline constexpr std::array<PluginType, 5> allPluginTypes{
    PluginType::before, PluginType::enrichment, PluginType::destination, PluginType::after,
    PluginType::utility};
// The stage with that raw value; nothing outside 0...4.
PELORA_API std::optional<PluginType> pluginType(int rawValue) noexcept;

// Whether settings handed to a plugin are the first it sees or a later change.
enum class UpdateType { initial, refresh };

class PELORA_API Plugin {
 public:
  virtual ~Plugin() = default;

  virtual PluginType type() const = 0;
  // The client this plugin works for, as far as a plugin may see it (held strongly: the client
  // and its plugins keep each other alive until the client shuts down).
  virtual std::shared_ptr<PluginHost> analytics() const { return analytics_; }
  virtual void setAnalytics(std::shared_ptr<PluginHost> analytics) {
    analytics_ = std::move(analytics);
  }
  // Called when the plugin is added to a client; by default keeps the client.
  virtual void configure(std::shared_ptr<PluginHost> analytics) {
    setAnalytics(std::move(analytics));
  }
  // New settings; does nothing by default.
  virtual void update(const Settings& /*settings*/, UpdateType /*type*/) {}
  // Processes one event; returning nothing drops it for the plugins after this one.
  virtual std::optional<TrackEvent> execute(std::optional<TrackEvent> event) { return event; }
  virtual std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) { return event; }
  // execute() on `event` where it lies, as the timeline calls it; a plugin that mostly passes
  // events on unchanged may override these to spare each event its moves.
  virtual void executeInPlace(std::optional<TrackEvent>& event) {
    event = execute(std::move(event));
  }
  virtual void executeInPlace(std::optional<MonitorEvent>& event) {
    event = execute(std::move(event));
  }
  // Called when the plugin is removed from a timeline.
  virtual void shutdown() {}
  // Whether this plugin reads the values of the events it gets (their properties). While no
  // plugin of a client does, the client writes a host's properties straight to JSON text instead
  // of building them as JSON first. True unless a plugin says otherwise; a destination answers
  // for itself, the plugins of its own timeline are asked too. Asked again only when a plugin is
  // added or removed, so the answer must not change while the plugin is in a timeline.
  virtual bool readsEventValues() const { return true; }

 protected:
  // The client as kept by setAnalytics, without a copy: for hot paths of plugins that do not
  // override analytics().
  const std::shared_ptr<PluginHost>& keptAnalytics() const noexcept { return analytics_; }

 private:
  std::shared_ptr<PluginHost> analytics_;
};

// A plugin that handles the two event kinds separately and can be flushed and reset.
class PELORA_API EventPlugin : public Plugin {
 public:
  virtual std::optional<TrackEvent> track(TrackEvent event) { return event; }
  virtual std::optional<MonitorEvent> trackNow(MonitorEvent event) { return event; }
  virtual void reset() {}
  virtual void flush() {}

  // Track events go to track(), monitor events to trackNow().
  std::optional<TrackEvent> execute(std::optional<TrackEvent> event) override;
  std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) override;
};

// A plugin that delivers events somewhere, enabled per event and by settings, with a timeline of
// its own for plugins that concern it alone.
class PELORA_API DestinationPlugin : public EventPlugin {
 public:
  DestinationPlugin();

  PluginType type() const override { return PluginType::destination; }
  // The destination's name in the settings' integrations and in an event's integrations.
  virtual std::string key() const = 0;
  const std::shared_ptr<Timeline>& timeline() const noexcept { return timeline_; }

  // Configures `plugin` with this destination's client (when set) and adds it to its timeline.
  std::shared_ptr<Plugin> add(std::shared_ptr<Plugin> plugin);
  void apply(const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const;
  void remove(const std::shared_ptr<Plugin>& plugin);

  // Keeps the client and configures the plugins of its own timeline with it.
  void configure(std::shared_ptr<PluginHost> analytics) override;
  // Runs the destination when it is enabled for the event: its timeline's before stage, then
  // track() for track events, then its after stage.
  std::optional<TrackEvent> execute(std::optional<TrackEvent> event) override;
  std::optional<MonitorEvent> execute(std::optional<MonitorEvent> event) override;

 protected:
  // Enabled when the event's integrations do not say false under key() and the client's settings
  // have an entry for key().
  bool isDestinationEnabled(const RawEvent& event) const;
  // What execute() does before track(), on `event` in place, for a destination that overrides
  // executeInPlace but not analytics(): false when nothing is left to track (not enabled, or
  // dropped by a plugin).
  bool runStagesBeforeTrack(std::optional<TrackEvent>& event) const;
  // What execute() does with track()'s result: its own after stage.
  void runStagesAfterTrack(std::optional<TrackEvent>& result) const;

 private:
  // isDestinationEnabled with the client given (held by the caller).
  bool isEnabledFor(const RawEvent& event, const PluginHost* client) const;
  template <class E>
  bool enter(std::optional<E>& event, const PluginHost* client) const;
  template <class E>
  std::optional<E> process(std::optional<E>& event);
  std::shared_ptr<Timeline> timeline_;
};

// Marker for plugins that serve the client rather than events.
class PELORA_API UtilityPlugin {
 public:
  virtual ~UtilityPlugin() = default;
};

// Marker for plugins that the client adds for the platform.
class PELORA_API PlatformPlugin {
 public:
  virtual ~PlatformPlugin() = default;
};

// A plugin that names its version (its type also offers a static version()).
class PELORA_API VersionedPlugin {
 public:
  virtual ~VersionedPlugin() = default;
  virtual std::string pluginVersion() const = 0;
};

}  // namespace pelora
