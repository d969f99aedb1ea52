#include "pelora/messages/iam_records.hpp"

namespace pelora {
namespace {

// One level down: the text decoded as a T, or nothing on any failure.
template <class T>
std::optional<T> decodeText(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  try {
    return decodeFromString<T>(*text);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string quoted(const std::optional<std::string>& value) {
  return value ? toString(*value) : std::string("nil");
}

}  // namespace

std::optional<IAMMessage> IAMData::decodedMessage() const {
  return decodeText<IAMMessage>(message);
}

std::optional<IAMData> IAMResponse::decodedData() const {
  return decodeText<IAMData>(data);
}

void decode(const JSON& json, IAMMessage& message) {
  decodeOptional(json, "htmlContent", message.htmlContent);
  decodeRequired(json, "jsonContent", message.jsonContent);
}

void decode(const JSON& json, IAMData& data) {
  decodeOptional(json, "activeType", data.activeType);
  decodeOptional(json, "closingAfter", data.closingAfter);
  decodeOptional(json, "activeValue", data.activeValue);
  decodeOptional(json, "name", data.name);
  decodeOptional(json, "actionOpen", data.actionOpen);
  decodeOptional(json, "actionClick", data.actionClick);
  decodeOptional(json, "message", data.message);
}

void decode(const JSON& json, IAMResponse& response) {
  decodeOptional(json, "data", response.data);
  decodeOptional(json, "message", response.message);
  decodeOptional(json, "code", response.code);
}

std::string description(const IAMResponse& response) {
  return "IAMResponse(data: " + quoted(response.data) + ", message: " + quoted(response.message) +
         ", code: " + quoted(response.code) + ")";
}

std::string description(const std::optional<std::string>& value) {
  return value ? *value : std::string("nil");
}

std::string description(const std::optional<std::int64_t>& value) {
  return value ? std::to_string(*value) : std::string("nil");
}

}  // namespace pelora
