#include "pelora/plugin/plugin.hpp"

#include <gtest/gtest.h>

#include "tests/support/recording_plugins.hpp"

namespace pelora {
namespace {

using test::Recorder;
using test::RecordingDestination;

TEST(PluginTypes, OnlyTheFiveStagesHaveRawValues) {
  EXPECT_EQ(pluginType(0), PluginType::before);
  EXPECT_EQ(pluginType(4), PluginType::utility);
  EXPECT_EQ(pluginType(-1), std::nullopt);
  EXPECT_EQ(pluginType(5), std::nullopt);
}

using DestinationTest = test::ClientWithoutUploads;

TEST_F(DestinationTest, DestinationNeedsSettingsEntryAndNoFalseInTheEvent) {
  auto unlisted = std::make_shared<RecordingDestination>("Unlisted");
  analytics->add(unlisted);
  analytics->trackBash("ignored");
  EXPECT_TRUE(unlisted->seen.empty());  // no settings entry for its key

  auto listed = std::make_shared<RecordingDestination>("Listed");
  analytics->add(listed);
  analytics->manuallyEnableDestination(listed);
  // A before plugin stands in for a host that marks events per destination.
  auto marker = std::make_shared<Recorder>(PluginType::before, [](TrackEvent e) {
    if (e.event == "off") e.integrations = JSON::parse(R"({"Listed":false})");
    if (e.event == "on") e.integrations = JSON::parse(R"({"Listed":true})");
    if (e.event == "text") e.integrations = JSON::parse(R"({"Listed":"no"})");
    return std::optional<TrackEvent>(e);
  });
  analytics->add(marker);
  for (const char* name : {"off", "on", "text", "plain"}) analytics->trackBash(name);
  EXPECT_EQ(listed->seen, (std::vector<std::string>{"on", "text", "plain"}));
}

// The destination's own before stage may change or drop the event for its track() alone; its
// after stage sees what track() returned; monitor events never reach track().
TEST_F(DestinationTest, OwnStagesWrapTrackAndMonitorEventsStopAtTheDestination) {
  auto destination = std::make_shared<RecordingDestination>("Own", TrackEvent{});
  analytics->add(destination);
  analytics->manuallyEnableDestination(destination);
  auto renamer = std::make_shared<Recorder>(PluginType::before, [](TrackEvent e) {
    if (e.event == "drop") return std::optional<TrackEvent>();
    e.event = "renamed " + e.event;
    return std::optional<TrackEvent>(e);
  });
  auto after = std::make_shared<Recorder>(PluginType::after);
  destination->add(renamer);
  destination->add(after);
  EXPECT_EQ(renamer->analytics(), analytics);
  auto outside = std::make_shared<Recorder>(PluginType::after);
  analytics->add(outside);

  analytics->trackBash("kept");
  analytics->trackBash("drop");
  EXPECT_FALSE(destination->execute(std::optional<MonitorEvent>(MonitorEvent{})));
  EXPECT_EQ(destination->seen, std::vector<std::string>{"renamed kept"});
  EXPECT_EQ(after->seen(), std::vector<std::string>{""});  // track()'s replacement
  EXPECT_EQ(outside->seen(), (std::vector<std::string>{"kept", "drop"}));
}

}  // namespace
}  // namespace pelora
