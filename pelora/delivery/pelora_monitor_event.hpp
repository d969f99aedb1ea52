// PeloraMonitorEvent: a before-stage plugin that posts each monitor event at once through an
// HTTPClient of its own and ignores the answer; it stores nothing. Events arrive on any thread;
// the client and the HTTP client are replaced under a lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "pelora/core/export.h"
#include "pelora/plugin/plugin.hpp"
#include "pelora/plugin/timeline.hpp"

namespace pelora {

class DeliveryProgress;
class HTTPClient;

class PELORA_API PeloraMonitorEvent : public EventPlugin, public VersionedPlugin {
 public:
  PeloraMonitorEvent();

  static std::string version();  // the library's
  std::string pluginVersion() const override { return version(); }
  PluginType type() const override { return PluginType::before; }
  // Posts monitor events; track events pass untouched.
  bool readsEventValues() const override { return false; }
  const std::shared_ptr<Timeline>& timeline() const noexcept { return timeline_; }

  std::shared_ptr<PluginHost> analytics() const override;
  // A client (not an empty one) also brings a fresh HTTP client with default key and host.
  void setAnalytics(std::shared_ptr<PluginHost> analytics) override;
  // Fills apiKey and apiHost from "Pelora.io" like the upload destination; sending ignores them.
  void update(const Settings& settings, UpdateType type) override;
  // Posts the event when there is an HTTP client; returns it unchanged either way.
  std::optional<MonitorEvent> trackNow(MonitorEvent event) override;
  // Track events pass untouched, without a move.
  void executeInPlace(std::optional<TrackEvent>& /*event*/) override {}
  using EventPlugin::executeInPlace;
  // Lets the HTTP client go (posts in flight still finish).
  void shutdown() override;

  std::shared_ptr<HTTPClient> httpClient() const;
  // Posts started and not yet answered: a host about to exit can wait for zero.
  std::size_t postsInFlight() const noexcept { return postsInFlight_->load(); }
  // Told of every post that ends, for a flush with a deadline that waits on it.
  void setProgress(std::shared_ptr<DeliveryProgress> progress);
  std::optional<std::string> apiKey() const;
  std::optional<std::string> apiHost() const;
  // Withheld, events are not posted, and posts in flight are cancelled and have ended when this
  // returns; released, events are posted again.
  void withhold(bool withheld);

 private:
  const std::shared_ptr<Timeline> timeline_;
  // Shared with the completions, which may outlive this plugin.
  const std::shared_ptr<std::atomic<std::size_t>> postsInFlight_;
  mutable std::mutex mutex_;
  std::shared_ptr<PluginHost> analytics_;
  std::shared_ptr<HTTPClient> httpClient_;
  bool withheld_ = false;
  std::shared_ptr<DeliveryProgress> progress_;  // never null
  std::optional<std::string> apiKey_;
  std::optional<std::string> apiHost_;
};

}  // namespace pelora
