// The event records that travel through the plugin timeline, and their exact JSON form: keys in
// declaration order, optional fields left out when absent (never written as null).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/core/json.hpp"

namespace pelora {

// The deepest nesting an event's values (properties, context, event data) may have: a batch file
// holds them three levels down (the batch object, its array, the event), and no reader takes
// more than JSON::maxNestingDepth levels.
inline constexpr int maxEventValueDepth = JSON::maxNestingDepth - 3;
// The deepest nesting an event's own text may have inside a batch file.
inline constexpr int maxEventTextDepth = JSON::maxNestingDepth - 2;

// Which bundles of destinations an event went through; all three lists are always encoded.
struct PELORA_API DestinationMetadata {
  std::vector<std::string> bundled;
  std::vector<std::string> unbundled;
  std::vector<std::string> bundledIds;

  friend bool operator==(const DestinationMetadata&, const DestinationMetadata&) = default;
};

// The fields every event carries. Not an event by itself: TrackEvent and MonitorEvent are.
struct PELORA_API RawEvent {
  std::optional<std::string> type;
  std::optional<std::string> anonymousId;
  std::optional<std::string> messageId;
  std::optional<std::string> userId;
  std::optional<std::string> timestamp;
  std::optional<JSON> context;
  std::optional<JSON> integrations;
  std::optional<std::vector<JSON>> metrics;
  std::optional<DestinationMetadata> _metadata;

  friend bool operator==(const RawEvent&, const RawEvent&) = default;

 protected:
  RawEvent() = default;
  explicit RawEvent(std::string type) : type(std::move(type)) {}
  // Copies anonymousId, messageId, userId, timestamp, context, integrations and _metadata from
  // `source` when given; never `type` or `metrics`.
  void copyCommonFields(const RawEvent* source);
};

// A named analytics event ("track").
struct PELORA_API TrackEvent : RawEvent {
  std::string event;
  std::optional<JSON> properties;
  // The properties as JSON text, when the client wrote a host's dictionary straight to text
  // because no plugin of it reads event values (then `properties` is absent). Encoding writes it
  // in place of `properties`; the batch bytes are the same either way.
  std::shared_ptr<const std::string> propertiesText;

  // Every field absent (what decoding starts from).
  TrackEvent() = default;
  // Type "track", the name and properties, every other field absent.
  TrackEvent(std::string event, std::optional<JSON> properties);
  // A "track" copy of `other`'s name, properties and common fields; its metrics are dropped.
  static TrackEvent existing(const TrackEvent& other);

  // Field by field; the properties text by its content.
  friend bool operator==(const TrackEvent& a, const TrackEvent& b) {
    const bool sameText =
        a.propertiesText == b.propertiesText ||
        (a.propertiesText && b.propertiesText && *a.propertiesText == *b.propertiesText);
    return static_cast<const RawEvent&>(a) == static_cast<const RawEvent&>(b) &&
           a.event == b.event && a.properties == b.properties && sameText;
  }
};

// An identity-tracking event ("monitor_event"), posted at once rather than batched.
struct PELORA_API MonitorEvent : RawEvent {
  JSON identityId;
  std::string eventName;
  JSON eventData;
  std::optional<std::vector<JSON>> profile;

  MonitorEvent() = default;
  // Type "monitor_event" and the four values, every other field absent.
  MonitorEvent(JSON identityId, std::string eventName, JSON eventData,
               std::optional<std::vector<JSON>> profile);
  // A "monitor_event" copy of `other`'s own values and common fields; its metrics are dropped.
  static MonitorEvent existing(const MonitorEvent& other);

  friend bool operator==(const MonitorEvent&, const MonitorEvent&) = default;
};

PELORA_API void encode(Encoder& encoder, const DestinationMetadata& metadata);
PELORA_API void encode(Encoder& encoder, const TrackEvent& event);
PELORA_API void encode(Encoder& encoder, const MonitorEvent& event);
// Required keys: "event" (TrackEvent); "identityId", "eventName", "eventData" (MonitorEvent); all
// three of DestinationMetadata. Missing ones throw DecodingError::keyNotFound. "type" is kept as
// found; unknown keys are ignored.
PELORA_API void decode(const JSON& json, DestinationMetadata& metadata);
PELORA_API void decode(const JSON& json, TrackEvent& event);
PELORA_API void decode(const JSON& json, MonitorEvent& event);

}  // namespace pelora
