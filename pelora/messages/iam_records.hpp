// The in-app message service's answer to a pull, in three levels: an envelope whose "data" is a
// string holding a JSON object (IAMData), whose "message" is again a string holding a JSON object
// (IAMMessage, which carries the HTML). Decode-only: the library never writes them. The inner
// levels are decoded afresh on every read, and any failure there gives nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pelora/core/export.h"
#include "pelora/core/json.hpp"

namespace pelora {

// The message body.
struct PELORA_API IAMMessage {
  std::optional<std::string> htmlContent;  // the HTML document the full-screen view loads
  JSON jsonContent;                        // free-form content; required

  friend bool operator==(const IAMMessage&, const IAMMessage&) = default;
};

// One message and how it is activated and closed.
struct PELORA_API IAMData {
  std::optional<std::string> activeType;     // "time" (any letter case) delays it by activeValue s
  std::optional<std::int64_t> closingAfter;  // seconds until the view closes itself
  std::optional<std::int64_t> activeValue;
  std::optional<std::string> name;
  std::optional<std::string> actionOpen;   // requested with GET when the message is shown
  std::optional<std::string> actionClick;  // prefix of a clicked link that is opened
  std::optional<std::string> message;      // JSON text of an IAMMessage

  // `message` decoded as an IAMMessage; nothing when absent or not one (no "jsonContent", ...).
  std::optional<IAMMessage> decodedMessage() const;

  friend bool operator==(const IAMData&, const IAMData&) = default;
};

// The answer to a pull.
struct PELORA_API IAMResponse {
  std::optional<std::string> data;     // JSON text of an IAMData
  std::optional<std::string> message;  // the service's own text; not interpreted
  std::optional<std::string> code;     // "OK" when a message was delivered

  // `data` decoded as an IAMData; nothing when absent or not one.
  std::optional<IAMData> decodedData() const;

  friend bool operator==(const IAMResponse&, const IAMResponse&) = default;
};

// Each key may be missing or null (absent); a value of another type fails the whole record
// (DecodingError). The integer keys take only integers. Unknown keys are ignored.
PELORA_API void decode(const JSON& json, IAMMessage& message);
PELORA_API void decode(const JSON& json, IAMData& data);
PELORA_API void decode(const JSON& json, IAMResponse& response);

// How the manager prints them: `IAMResponse(data: "...", message: nil, code: "OK")`.
PELORA_API std::string description(const IAMResponse& response);
// An optional as it prints in a debug line: the value, or "nil".
PELORA_API std::string description(const std::optional<std::string>& value);
PELORA_API std::string description(const std::optional<std::int64_t>& value);

}  // namespace pelora
