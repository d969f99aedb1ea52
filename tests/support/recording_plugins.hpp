// Plugins that record what reaches them, and a client to add them to, for the plugin and timeline
// tests.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pelora/client/analytics.hpp"
#include "pelora/plugin/plugin.hpp"
#include "tests/support/temp_directory.hpp"

namespace pelora::test {

// Records what reaches it and optionally changes or drops track events.
class Recorder : public EventPlugin {
 public:
  explicit Recorder(PluginType type,
                    std::function<std::optional<TrackEvent>(TrackEvent)> change = {})
      : type_(type), change_(std::move(change)) {}
  PluginType type() const override { return type_; }
  std::optional<TrackEvent> track(TrackEvent event) override {
    std::lock_guard lock(mutex_);
    seen_.push_back(event.event);
    return change_ ? change_(std::move(event)) : std::optional<TrackEvent>(std::move(event));
  }
  void shutdown() override { ++shutdowns; }
  std::vector<std::string> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  int shutdowns = 0;

 private:
  PluginType type_;
  std::function<std::optional<TrackEvent>(TrackEvent)> change_;
  mutable std::mutex mutex_;
  std::vector<std::string> seen_;
};

class RecordingDestination : public DestinationPlugin {
 public:
  explicit RecordingDestination(std::string key, std::optional<TrackEvent> replacement = {})
      : key_(std::move(key)), replacement_(std::move(replacement)) {}
  std::string key() const override { return key_; }
  std::optional<TrackEvent> track(TrackEvent event) override {
    seen.push_back(event.event);
    return replacement_;
  }
  std::vector<std::string> seen;

 private:
  std::string key_;
  std::optional<TrackEvent> replacement_;
};

// A client of its own directory without the upload destination: nothing may head for the real
// tracking host from a test of plugins.
class ClientWithoutUploads : public ::testing::Test {
 protected:
  ClientWithoutUploads() {
    auto configuration = std::make_shared<Configuration>("timeline-key", std::nullopt, false);
    configuration->paths(platform::Paths{dir.path() / "docs", dir.path() / "prefs"});
    configuration->autoAddPeloraDestination(false);
    analytics = PeloraAnalytics::create(configuration);
  }
  TempDirectory dir;
  std::shared_ptr<PeloraAnalytics> analytics;
};

}  // namespace pelora::test
