#include "pelora/core/events.hpp"

namespace pelora {

void RawEvent::copyCommonFields(const RawEvent* source) {
  if (!source) return;
  anonymousId = source->anonymousId;
  messageId = source->messageId;
  userId = source->userId;
  timestamp = source->timestamp;
  context = source->context;
  integrations = source->integrations;
  _metadata = source->_metadata;
}

TrackEvent::TrackEvent(std::string event, std::optional<JSON> properties)
    : RawEvent("track"), event(std::move(event)), properties(std::move(properties)) {}

TrackEvent TrackEvent::existing(const TrackEvent& other) {
  TrackEvent copy(other.event, other.properties);
  copy.propertiesText = other.propertiesText;
  copy.copyCommonFields(&other);
  return copy;
}

MonitorEvent::MonitorEvent(JSON identityId, std::string eventName, JSON eventData,
                           std::optional<std::vector<JSON>> profile)
    : RawEvent("monitor_event"),
      identityId(std::move(identityId)),
      eventName(std::move(eventName)),
      eventData(std::move(eventData)),
      profile(std::move(profile)) {}

MonitorEvent MonitorEvent::existing(const MonitorEvent& other) {
  MonitorEvent copy(other.identityId, other.eventName, other.eventData, other.profile);
  copy.copyCommonFields(&other);
  return copy;
}

namespace {
void encodeCommonFields(Encoder& encoder, const RawEvent& event) {
  encoder.fieldIfPresent(PlainKey("type"), event.type);
  encoder.fieldIfPresent(PlainKey("anonymousId"), event.anonymousId);
  encoder.fieldIfPresent(PlainKey("messageId"), event.messageId);
  encoder.fieldIfPresent(PlainKey("userId"), event.userId);
  encoder.fieldIfPresent(PlainKey("timestamp"), event.timestamp);
  encoder.fieldIfPresent(PlainKey("context"), event.context);
  encoder.fieldIfPresent(PlainKey("integrations"), event.integrations);
  encoder.fieldIfPresent(PlainKey("metrics"), event.metrics);
  encoder.fieldIfPresent(PlainKey("_metadata"), event._metadata);
}

void decodeCommonFields(const JSON& json, RawEvent& event) {
  decodeOptional(json, "type", event.type);
  decodeOptional(json, "anonymousId", event.anonymousId);
  decodeOptional(json, "messageId", event.messageId);
  decodeOptional(json, "userId", event.userId);
  decodeOptional(json, "timestamp", event.timestamp);
  decodeOptional(json, "context", event.context);
  decodeOptional(json, "integrations", event.integrations);
  decodeOptional(json, "metrics", event.metrics);
  decodeOptional(json, "_metadata", event._metadata);
}
}  // namespace

void encode(Encoder& encoder, const DestinationMetadata& metadata) {
  // Nearly every event carries the empty one; the text writer copies its text in one piece.
  if (metadata.bundled.empty() && metadata.unbundled.empty() && metadata.bundledIds.empty()) {
    encoder.writeJSONText(R"({"bundled":[],"unbundled":[],"bundledIds":[]})");
    return;
  }
  encoder.beginObject();
  encoder.field(PlainKey("bundled"), metadata.bundled);
  encoder.field(PlainKey("unbundled"), metadata.unbundled);
  encoder.field(PlainKey("bundledIds"), metadata.bundledIds);
  encoder.endObject();
}

void encode(Encoder& encoder, const TrackEvent& event) {
  encoder.beginObject();
  encodeCommonFields(encoder, event);
  encoder.field(PlainKey("event"), event.event);
  if (event.properties) {
    encoder.field(PlainKey("properties"), *event.properties);
  } else if (event.propertiesText) {
    encoder.writePlainKey(PlainKey("properties"));
    encoder.writeJSONText(*event.propertiesText);
  }
  encoder.endObject();
}

void encode(Encoder& encoder, const MonitorEvent& event) {
  encoder.beginObject();
  encodeCommonFields(encoder, event);
  encoder.field(PlainKey("identityId"), event.identityId);
  encoder.field(PlainKey("eventName"), event.eventName);
  encoder.field(PlainKey("eventData"), event.eventData);
  encoder.fieldIfPresent(PlainKey("profile"), event.profile);
  encoder.endObject();
}

void decode(const JSON& json, DestinationMetadata& metadata) {
  decodeRequired(json, "bundled", metadata.bundled);
  decodeRequired(json, "unbundled", metadata.unbundled);
  decodeRequired(json, "bundledIds", metadata.bundledIds);
}

void decode(const JSON& json, TrackEvent& event) {
  decodeCommonFields(json, event);
  decodeRequired(json, "event", event.event);
  decodeOptional(json, "properties", event.properties);
}

void decode(const JSON& json, MonitorEvent& event) {
  decodeCommonFields(json, event);
  decodeRequired(json, "identityId", event.identityId);
  decodeRequired(json, "eventName", event.eventName);
  decodeRequired(json, "eventData", event.eventData);
  decodeOptional(json, "profile", event.profile);
}

}  // namespace pelora
