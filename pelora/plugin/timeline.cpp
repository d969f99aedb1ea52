#include "pelora/plugin/timeline.hpp"

#include <algorithm>

#include "pelora/state/configuration.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"
#include "pelora/state/system.hpp"

namespace pelora {

std::optional<PluginType> pluginType(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<PluginType>(rawValue);
}

// ---- EventPlugin and DestinationPlugin ----------------------------------------------------------

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

// ---- Mediator and Timeline ----------------------------------------------------------------------

void Mediator::replace(PluginList list) {
  auto stage = std::make_shared<PluginSnapshot::Stage>();
  for (const auto& plugin : list) {
    const bool destination = dynamic_cast<DestinationPlugin*>(plugin.get()) != nullptr;
    stage->isDestination.push_back(destination);
    stage->allDestinations = stage->allDestinations && destination;
  }
  stage->plugins = std::move(list);
  const bool none = stage->plugins.empty();
  plugins_ = std::move(stage);
  empty_.store(none, std::memory_order_release);
}

void Mediator::add(std::shared_ptr<Plugin> plugin) {
  std::lock_guard lock(mutex_);
  PluginList list = plugins_->plugins;
  list.push_back(std::move(plugin));
  replace(std::move(list));
}

std::size_t Mediator::remove(const Plugin* plugin) {
  std::lock_guard lock(mutex_);
  PluginList list = plugins_->plugins;
  auto removed = std::erase_if(list, [&](const auto& p) { return p.get() == plugin; });
  replace(std::move(list));
  return removed;
}

PluginSnapshot Mediator::plugins() const {
  std::shared_lock lock(mutex_);
  return PluginSnapshot(plugins_);
}

namespace {
std::map<PluginType, std::shared_ptr<Mediator>> keptStages() {
  return {{PluginType::before, std::make_shared<Mediator>()},
          {PluginType::destination, std::make_shared<Mediator>()},
          {PluginType::after, std::make_shared<Mediator>()}};
}
}  // namespace

Timeline::Timeline() : plugins_(keptStages()) {}

void Timeline::add(const std::shared_ptr<Plugin>& plugin) {
  auto it = plugins_.find(plugin->type());
  if (it == plugins_.end()) return;
  it->second->add(plugin);
  if (auto client = plugin->analytics()) {
    client->pluginsChanged();
    if (auto settings = client->settings()) plugin->update(*settings, UpdateType::initial);
  }
}

void Timeline::remove(const std::shared_ptr<Plugin>& plugin) {
  const auto client = plugin->analytics();  // before shutdown() lets it go
  for (PluginType type : allPluginTypes) {
    auto it = plugins_.find(type);
    if (it == plugins_.end()) continue;
    const PluginSnapshot list = it->second->plugins();
    auto count = std::count_if(list.begin(), list.end(),
                               [&](const auto& p) { return p.get() == plugin.get(); });
    for (long i = 0; i < count; ++i) plugin->shutdown();
    if (count > 0) it->second->remove(plugin.get());
  }
  if (client) client->pluginsChanged();
}

void Timeline::apply(const std::function<void(const std::shared_ptr<Plugin>&)>& closure) const {
  for (PluginType type : allPluginTypes) {
    auto it = plugins_.find(type);
    if (it == plugins_.end()) continue;
    for (const auto& plugin : it->second->plugins()) {
      closure(plugin);
      if (auto destination = std::dynamic_pointer_cast<DestinationPlugin>(plugin)) {
        destination->apply(closure);
      }
    }
  }
}

bool Timeline::readsEventValues() const {
  for (const auto& [type, mediator] : plugins_) {
    const PluginSnapshot list = mediator->plugins();
    std::size_t index = 0;
    for (const auto& plugin : list) {
      if (plugin->readsEventValues()) return true;
      if (list.isDestination(index++) &&
          static_cast<const DestinationPlugin&>(*plugin).timeline()->readsEventValues()) {
        return true;
      }
    }
  }
  return false;
}

std::shared_ptr<DestinationPlugin> Timeline::find(std::string_view key) const {
  for (const auto& plugin : plugins_.at(PluginType::destination)->plugins()) {
    auto destination = std::dynamic_pointer_cast<DestinationPlugin>(plugin);
    if (destination && destination->key() == key) return destination;
  }
  return nullptr;
}

}  // namespace pelora
