#include "pelora/plugin/timeline.hpp"

#include <gtest/gtest.h>

#include <mutex>

#include "tests/support/recording_plugins.hpp"

namespace pelora {
namespace {

using test::Recorder;
using test::RecordingDestination;

using TimelineTest = test::ClientWithoutUploads;

TEST_F(TimelineTest, OnlyBeforeDestinationAndAfterStagesKeepPlugins) {
  Timeline timeline;
  EXPECT_EQ(timeline.plugins().size(), 3u);
  auto enrichment = std::make_shared<Recorder>(PluginType::enrichment);
  auto utility = std::make_shared<Recorder>(PluginType::utility);
  timeline.add(enrichment);
  timeline.add(utility);
  for (const auto& [type, mediator] : timeline.plugins()) EXPECT_TRUE(mediator->plugins().empty());
  EXPECT_FALSE(timeline.find<Recorder>());
  EXPECT_EQ(timeline.process(std::optional<TrackEvent>(TrackEvent("e", std::nullopt)))->event, "e");
  EXPECT_TRUE(enrichment->seen().empty());
}

// A before plugin's change reaches everyone after it; a destination's reaches nobody else.
TEST_F(TimelineTest, BeforeStageChangesTheEventForAllAndDestinationsForNone) {
  auto dropper = std::make_shared<Recorder>(PluginType::before, [](TrackEvent e) {
    return e.event == "drop" ? std::nullopt
                             : std::optional<TrackEvent>(TrackEvent(e.event + "!", {}));
  });
  auto afterDropper = std::make_shared<Recorder>(PluginType::before);
  analytics->add(dropper);
  analytics->add(afterDropper);
  auto first = std::make_shared<RecordingDestination>("A", TrackEvent("replaced", std::nullopt));
  auto second = std::make_shared<RecordingDestination>("B", std::nullopt);
  auto third = std::make_shared<RecordingDestination>("C");
  for (auto d : {first, second, third}) {
    analytics->add(d);
    analytics->manuallyEnableDestination(d);
  }
  auto after = std::make_shared<Recorder>(PluginType::after);
  analytics->add(after);
  analytics->trackBash("drop");
  analytics->trackBash("keep");
  EXPECT_EQ(dropper->seen(), (std::vector<std::string>{"drop", "keep"}));
  for (const auto& seen : {afterDropper->seen(), second->seen, third->seen, after->seen()}) {
    EXPECT_EQ(seen, (std::vector<std::string>{"keep!"}));
  }
}

// With nothing in the after stage the client hands the last destination the event itself rather
// than a copy: every destination still gets the whole event.
TEST_F(TimelineTest, WithNothingAfterEveryDestinationStillGetsTheWholeEvent) {
  struct Keeper : DestinationPlugin {
    explicit Keeper(std::string k) : k_(std::move(k)) {}
    std::string key() const override { return k_; }
    std::optional<TrackEvent> track(TrackEvent event) override {
      kept.push_back(std::move(event));
      return std::nullopt;
    }
    std::vector<TrackEvent> kept;
    std::string k_;
  };
  auto first = std::make_shared<Keeper>("A");
  auto last = std::make_shared<Keeper>("B");
  for (auto d : {first, last}) {
    analytics->add(d);
    analytics->manuallyEnableDestination(d);
  }
  analytics->trackBash("x", Dictionary{{"k", 1}});
  ASSERT_EQ(first->kept.size(), 1u);
  ASSERT_EQ(last->kept.size(), 1u);
  EXPECT_EQ(first->kept[0], last->kept[0]);
  EXPECT_EQ(last->kept[0].event, "x");
  EXPECT_EQ(last->kept[0].properties, JSON(JSON::Map{{"k", JSON(1)}}));
  EXPECT_TRUE(last->kept[0].messageId.has_value());
}

TEST_F(TimelineTest, FindRemoveAndApplyFollowTheStages) {
  auto destination = std::make_shared<RecordingDestination>("Dest");
  auto inner = std::make_shared<Recorder>(PluginType::after);
  analytics->add(destination);
  destination->add(inner);
  EXPECT_EQ(analytics->find("Dest"), destination);
  EXPECT_EQ(inner->analytics(), analytics);  // configured with the destination's client
  std::vector<const Plugin*> visited;
  analytics->apply([&](const std::shared_ptr<Plugin>& p) { visited.push_back(p.get()); });
  EXPECT_NE(std::find(visited.begin(), visited.end(), inner.get()), visited.end());

  auto twice = std::make_shared<Recorder>(PluginType::after);
  analytics->add(twice);
  analytics->add(twice);
  analytics->trackBash("e");
  EXPECT_EQ(twice->seen().size(), 2u);
  analytics->remove(twice);
  EXPECT_EQ(twice->shutdowns, 2);
  analytics->trackBash("f");
  EXPECT_EQ(twice->seen().size(), 2u);
}

}  // namespace
}  // namespace pelora
