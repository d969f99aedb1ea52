#include "pelora/plugin/plugin.hpp"

#include "pelora/plugin/plugin_host.hpp"
#include "pelora/plugin/timeline.hpp"
#include "pelora/state/store.hpp"
#include "pelora/state/system.hpp"

namespace pelora {

std::optional<PluginType> pluginType(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<PluginType>(rawValue);
}

std::optional<TrackEvent> EventPlugin::execute(std::optional<TrackEvent> event) {
  if (!event) return event;
  return track(std::move(*event));
}

std::optional<MonitorEvent> EventPlugin::execute(std::optional<MonitorEvent> event) {
  if (!event) return event;
  return trackNow(std::move(*event));
}

DestinationPlugin::DestinationPlugin() : timeline_(std::make_shared<Timeline>()) {}

std::shared_ptr<Plugin> DestinationPlugin::add(std::shared_ptr<Plugin> plugin) {
  if (auto client = analytics()) plugin->configure(client);
  timeline_->add(plugin);
  return plugin;
}

void DestinationPlugin::apply(
    const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const {
  timeline_->apply(closure);
}

void DestinationPlugin::remove(const std::shared_ptr<Plugin>& plugin) {
  timeline_->remove(plugin);
}

void DestinationPlugin::configure(std::shared_ptr<PluginHost> analytics) {
  setAnalytics(analytics);
  apply([&](const std::shared_ptr<Plugin>& plugin) { plugin->configure(analytics); });
}

bool DestinationPlugin::isDestinationEnabled(const RawEvent& event) const {
  return isEnabledFor(event, analytics().get());
}

bool DestinationPlugin::isEnabledFor(const RawEvent& event, const PluginHost* client) const {
  bool allowedByEvent = true;
  // Events usually carry an empty integrations object: nothing to look up then.
  const JSON::Map* integrations = event.integrations ? event.integrations->mapPointer() : nullptr;
  if (event.integrations && !(integrations && integrations->empty())) {
    if (auto entry = event.integrations->value<std::any>(KeyPath(key()))) {
      if (const bool* flag = std::any_cast<bool>(&*entry)) allowedByEvent = *flag;
    }
  }
  if (client == nullptr || !allowedByEvent) return false;
  // Read in place: a copy of the settings per event would cost more than the rest of this.
  bool allowedBySettings = false;
  const std::string name = key();
  client->store()->read<System>([&](const System* system) {
    allowedBySettings =
        system && system->settings && system->settings->hasIntegrationSettings(name);
  });
  return allowedBySettings;
}

template <class E>
bool DestinationPlugin::enter(std::optional<E>& event, const PluginHost* client) const {
  if (!event || !isEnabledFor(*event, client)) return false;
  timeline_->runStage(PluginType::before, event);
  timeline_->runStage(PluginType::enrichment, event);
  return event.has_value();
}

bool DestinationPlugin::runStagesBeforeTrack(std::optional<TrackEvent>& event) const {
  return enter(event, keptAnalytics().get());
}

void DestinationPlugin::runStagesAfterTrack(std::optional<TrackEvent>& result) const {
  timeline_->runStage(PluginType::after, result);
}

template <class E>
std::optional<E> DestinationPlugin::process(std::optional<E>& event) {
  // Built where it is returned: one move of the event fewer than assigning track()'s result.
  std::optional<E> result = [&]() -> std::optional<E> {
    if (!enter(event, analytics().get())) return std::nullopt;
    if constexpr (std::is_same_v<E, TrackEvent>) return track(std::move(*event));
    return std::nullopt;
  }();
  if (!result) return result;  // the after stage has nothing to run on
  timeline_->runStage(PluginType::after, result);
  return result;
}

std::optional<TrackEvent> DestinationPlugin::execute(std::optional<TrackEvent> event) {
  return process(event);
}

std::optional<MonitorEvent> DestinationPlugin::execute(std::optional<MonitorEvent> event) {
  return process(event);
}

}  // namespace pelora
