#include "pelora/core/events.hpp"

#include <gtest/gtest.h>

namespace pelora {
namespace {

TrackEvent fullTrackEvent() {
  TrackEvent event("Clicked", JSON::parse(R"({"button":"buy"})"));
  event.anonymousId = "anon";
  event.messageId = "MSG";
  event.userId = "user";
  event.timestamp = "2024-05-01T08:09:10.123Z";
  event.context = JSON::parse(R"({"app":"x"})");
  event.integrations = JSON(JSON::Map{});
  event.metrics = std::vector<JSON>{JSON(1)};
  event._metadata = DestinationMetadata{{"a"}, {}, {"id"}};
  return event;
}

TEST(EventEncoding, WritesKeysInOrderAndLeavesAbsentOnesOut) {
  TrackEvent minimal("x", std::nullopt);
  minimal.messageId = "M";
  EXPECT_EQ(toString(minimal), R"({"type":"track","messageId":"M","event":"x"})");

  EXPECT_EQ(toString(fullTrackEvent()),
            R"({"type":"track","anonymousId":"anon","messageId":"MSG","userId":"user",)"
            R"("timestamp":"2024-05-01T08:09:10.123Z","context":{"app":"x"},"integrations":{},)"
            R"("metrics":[1],"_metadata":{"bundled":["a"],"unbundled":[],"bundledIds":["id"]},)"
            R"("event":"Clicked","properties":{"button":"buy"}})");
}

TEST(EventEncoding, MonitorEventAlwaysWritesItsRequiredValues) {
  MonitorEvent event(JSON::parse(R"({"email":"a@b"})"), "login", JSON(), std::nullopt);
  EXPECT_EQ(toString(event),
            R"({"type":"monitor_event","identityId":{"email":"a@b"},"eventName":"login",)"
            R"("eventData":null})");
  event.profile = std::vector<JSON>{JSON::parse(R"({"p":1})")};
  event.userId = "u";
  EXPECT_EQ(toString(event), R"({"type":"monitor_event","userId":"u","identityId":{"email":"a@b"},)"
                             R"("eventName":"login","eventData":null,"profile":[{"p":1}]})");
}

TEST(EventCopies, ExistingCopiesCommonFieldsButNotMetricsOrType) {
  TrackEvent source = fullTrackEvent();
  source.type = "renamed";
  TrackEvent expected = fullTrackEvent();
  expected.metrics.reset();
  EXPECT_EQ(TrackEvent::existing(source), expected);

  MonitorEvent monitor(JSON(1), "e", JSON(2), std::vector<JSON>{JSON(3)});
  monitor.userId = "u";
  MonitorEvent expectedMonitor = monitor;
  monitor.metrics = std::vector<JSON>{};
  monitor.type = "renamed";
  EXPECT_EQ(MonitorEvent::existing(monitor), expectedMonitor);
}

TEST(EventDecoding, RoundTripsAndKeepsTypeAsFound) {
  TrackEvent event = fullTrackEvent();
  EXPECT_EQ(decodeFromString<TrackEvent>(toString(event)), event);

  TrackEvent bare = decodeFromString<TrackEvent>(R"({"event":"x","unknown":[1]})");
  EXPECT_EQ(bare.event, "x");
  EXPECT_FALSE(bare.type);
  // null reads as absent for optional keys
  EXPECT_FALSE(decodeFromString<TrackEvent>(R"({"event":"x","userId":null})").userId);

  MonitorEvent monitor(JSON::parse(R"({"id":1})"), "m", JSON(), std::nullopt);
  EXPECT_EQ(decodeFromString<MonitorEvent>(toString(monitor)), monitor);
}

TEST(EventDecoding, MissingOrMistypedValuesNameTheKey) {
  auto failure = [](auto decodeCall) {
    try {
      decodeCall();
    } catch (const DecodingError& error) {
      return error;
    }
    ADD_FAILURE() << "decoding succeeded";
    return DecodingError::dataCorrupted("none");
  };
  DecodingError missing =
      failure([] { (void)decodeFromString<TrackEvent>(R"({"type":"track"})"); });
  EXPECT_EQ(missing.kind(), DecodingError::Kind::keyNotFound);
  EXPECT_EQ(missing.key(), "event");

  DecodingError nested = failure([] {
    (void)decodeFromString<TrackEvent>(
        R"({"event":"x","_metadata":{"bundled":[],"unbundled":[]}})");
  });
  EXPECT_EQ(nested.key(), "bundledIds");
  EXPECT_EQ(nested.codingPath(), "_metadata");

  DecodingError mistyped =
      failure([] { (void)decodeFromString<TrackEvent>(R"({"event":"x","userId":5})"); });
  EXPECT_EQ(mistyped.kind(), DecodingError::Kind::typeMismatch);
  EXPECT_EQ(mistyped.codingPath(), "userId");

  EXPECT_EQ(failure([] { (void)decodeFromString<MonitorEvent>(R"({"identityId":1})"); }).kind(),
            DecodingError::Kind::keyNotFound);
  EXPECT_EQ(failure([] { (void)decodeFromString<TrackEvent>("[1]"); }).kind(),
            DecodingError::Kind::typeMismatch);
}

}  // namespace
}  // namespace pelora
