#include "pelora/plugin/timeline.hpp"

#include <algorithm>

#include "pelora/state/configuration.hpp"
#include "pelora/state/storage.hpp"
#include "pelora/state/store.hpp"
#include "pelora/state/system.hpp"

namespace pelora {

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
  bool reads = false;
  apply(
      [&](const std::shared_ptr<Plugin>& plugin) { reads = reads || plugin->readsEventValues(); });
  return reads;
}

std::shared_ptr<DestinationPlugin> Timeline::find(std::string_view key) const {
  for (const auto& plugin : plugins_.at(PluginType::destination)->plugins()) {
    auto destination = std::dynamic_pointer_cast<DestinationPlugin>(plugin);
    if (destination && destination->key() == key) return destination;
  }
  return nullptr;
}

}  // namespace pelora
