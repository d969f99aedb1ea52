// Coding of records: the streaming `Encoder` that every encodable type writes itself into, and the
// errors of encoding and decoding. A type becomes encodable by a free function found by
// argument-dependent lookup:
//
//   void encode(pelora::Encoder& encoder, const MyRecord& record);
//
// and decodable (from a JSON value, see json.hpp) by:
//
//   void decode(const pelora::JSON& json, MyRecord& record);
#pragma once

#include <any>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "pelora/core/decimal.hpp"
#include "pelora/core/export.h"

namespace pelora {

class JSON;

// A decoding failure: a required key is missing, a value has the wrong type, or the text is not
// JSON. The message names the key path or the byte offset.
class PELORA_API DecodingError : public std::runtime_error {
 public:
  enum class Kind { keyNotFound, typeMismatch, dataCorrupted };

  static DecodingError keyNotFound(std::string_view key);
  static DecodingError typeMismatch(std::string_view expected, std::string_view found);
  // `description` should say where (the byte offset for text).
  static DecodingError dataCorrupted(std::string_view description,
                                     std::optional<std::size_t> offset = std::nullopt);

  Kind kind() const noexcept { return kind_; }
  // Dotted path of the value that failed ("_metadata.bundled"); empty at the top level.
  const std::string& codingPath() const noexcept { return path_; }
  // Byte offset into the text, for malformed text.
  std::optional<std::size_t> offset() const noexcept { return offset_; }
  // For keyNotFound: the missing key.
  const std::string& key() const noexcept { return key_; }

  // The same error seen one level up, under `key` (builds the coding path on the way out).
  DecodingError nested(std::string_view key) const;

 private:
  DecodingError(Kind kind, std::string detail, std::string path, std::string key,
                std::optional<std::size_t> offset);
  Kind kind_;
  std::string detail_;
  std::string path_;
  std::string key_;
  std::optional<std::size_t> offset_;
};

// A key known when compiling to need no escaping in JSON text: ASCII without control characters,
// quotes or backslashes (anything else does not compile). Writers copy it without looking at it.
class PlainKey {
 public:
  consteval explicit PlainKey(const char* text) : text_(text) {
    for (char c : text_) {
      if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x80 ||
          c == '"' || c == '\\') {
        throw "PlainKey: this key needs escaping; write it with writeKey";
      }
    }
  }
  constexpr std::string_view text() const noexcept { return text_; }

 private:
  std::string_view text_;
};

// Writes one JSON value as a stream of tokens. Implementations: the text writer behind
// toString(), and anything else a caller needs. Records call the templates below.
class PELORA_API Encoder {
 public:
  virtual ~Encoder() = default;

  virtual void writeNull() = 0;
  virtual void writeBool(bool value) = 0;
  virtual void writeDecimal(const Decimal& value) = 0;
  virtual void writeInt(std::int64_t value) = 0;
  virtual void writeUInt(std::uint64_t value) = 0;
  // Non-finite or out-of-range values fail the encoding.
  virtual void writeDouble(double value) = 0;
  virtual void writeString(std::string_view value) = 0;
  virtual void beginObject() = 0;
  virtual void writeKey(std::string_view key) = 0;
  // A key that needs no escaping; by default written as any other.
  virtual void writePlainKey(PlainKey key) { writeKey(key.text()); }
  virtual void endObject() = 0;
  virtual void beginArray() = 0;
  virtual void endArray() = 0;
  // Marks the whole encoding as failed; `reason` becomes the JSONError::nonJSONType text.
  virtual void fail(std::string_view reason) = 0;
  // A value given as JSON text this library wrote. By default parsed and written value by value;
  // the text writer copies it as it is.
  virtual void writeJSONText(std::string_view text);

  // Writes any encodable value: basic types, std::optional (absent is null), std::vector,
  // string-keyed std::map, std::any (loosely typed), JSON, or a type with an `encode` function.
  template <class T>
  void value(const T& v);
  // A key and its value.
  template <class T>
  void field(std::string_view key, const T& v) {
    writeKey(key);
    value(v);
  }
  template <class T>
  void field(PlainKey key, const T& v) {
    writePlainKey(key);
    value(v);
  }
  // A key and its value only when the optional holds one: absent keys are left out.
  template <class T>
  void fieldIfPresent(std::string_view key, const std::optional<T>& v) {
    if (v) field(key, *v);
  }
  template <class T>
  void fieldIfPresent(PlainKey key, const std::optional<T>& v) {
    if (v) field(key, *v);
  }
};

// Whether `text` is well-formed UTF-8, as JSON text must be (strings that are not are written with
// U+FFFD in place of each bad byte).
PELORA_API bool isValidUTF8(std::string_view text) noexcept;

// Writes a loosely typed value (see JSON::fromAny); an unconvertible one fails the encoder.
PELORA_API void encodeAny(Encoder& encoder, const std::any& value);

namespace detail {
template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T, class A>
struct IsVector<std::vector<T, A>> : std::true_type {};
template <class T>
struct IsStringMap : std::false_type {};
template <class T, class C, class A>
struct IsStringMap<std::map<std::string, T, C, A>> : std::true_type {};
}  // namespace detail

template <class T>
void Encoder::value(const T& v) {
  if constexpr (std::is_same_v<T, bool>) {
    writeBool(v);
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::is_signed_v<T>) {
      writeInt(static_cast<std::int64_t>(v));
    } else {
      writeUInt(static_cast<std::uint64_t>(v));
    }
  } else if constexpr (std::is_floating_point_v<T>) {
    writeDouble(static_cast<double>(v));
  } else if constexpr (std::is_same_v<T, Decimal>) {
    writeDecimal(v);
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    writeString(std::string_view(v));
  } else if constexpr (std::is_same_v<T, std::any>) {
    encodeAny(*this, v);
  } else if constexpr (detail::IsOptional<T>::value) {
    if (v) {
      value(*v);
    } else {
      writeNull();
    }
  } else if constexpr (detail::IsVector<T>::value) {
    beginArray();
    for (const auto& element : v) value(element);
    endArray();
  } else if constexpr (detail::IsStringMap<T>::value) {
    beginObject();
    for (const auto& [k, element] : v) field(k, element);
    endObject();
  } else {
    encode(*this, v);  // found by argument-dependent lookup
  }
}

}  // namespace pelora
