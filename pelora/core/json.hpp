// JSON: the library's one dynamic value (properties, context, traits, settings, message content).
// A value type: edits return new values and leave the receiver as it was. Numbers are exact
// decimals, never binary floats. Arrays and objects are shared between copies until changed, so
// copying an event is cheap.
#pragma once

#include <any>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "pelora/core/coding.hpp"
#include "pelora/core/decimal.hpp"
#include "pelora/core/dictionary.hpp"
#include "pelora/core/export.h"
#include "pelora/core/key_path.hpp"

namespace pelora {

// Failure to build or edit a JSON value.
class PELORA_API JSONError : public std::exception {
 public:
  enum class Kind { nonJSONType, unknown, incorrectType };

  // A value with no JSON form; `type` describes it ("std::chrono::duration<long, ...>").
  static JSONError nonJSONType(std::string type);
  static JSONError unknown();
  // An edit applied to a case that does not support it.
  static JSONError incorrectType();

  Kind kind() const noexcept { return kind_; }
  const std::string& type() const noexcept { return type_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  JSONError(Kind kind, std::string type);
  Kind kind_;
  std::string type_;
  std::string message_;
};

class PELORA_API JSON {
 public:
  // The six cases, in decoding order (bool is `boolean` here).
  enum class Kind { boolean, number, string, array, object, null };
  using List = std::vector<JSON>;
  using Map = std::map<std::string, JSON, std::less<>>;
  // The deepest nesting of arrays and objects that is read, converted or written ([[1]] is 2).
  static constexpr int maxNestingDepth = 512;

  JSON() noexcept : value_(Null{}) {}  // null
  JSON(Null) noexcept : value_(Null{}) {}
  JSON(std::nullptr_t) noexcept : value_(Null{}) {}
  JSON(bool value) noexcept : value_(value) {}
  template <class I>
  requires(std::is_integral_v<I> && !std::is_same_v<I, bool>) JSON(I value)
  noexcept : value_(Decimal(value)) {}
  // Throws JSONError::nonJSONType for NaN, infinities and values out of Decimal's range.
  JSON(double value);
  JSON(float value);
  JSON(Decimal value) noexcept : value_(value) {}
  JSON(std::string value) noexcept : value_(std::move(value)) {}
  JSON(std::string_view value) : value_(std::string(value)) {}
  JSON(const char* value) : value_(std::string(value)) {}
  JSON(List elements);
  JSON(Map members);
  // An object from loosely typed values; throws the first failing value's JSONError.
  explicit JSON(const Dictionary& dictionary);

  // The loosely typed construction; throws JSONError::nonJSONType for anything unconvertible.
  static JSON fromAny(const std::any& value);
  // From any encodable value (encoded, then read back); throws JSONError or DecodingError.
  template <class T>
  static JSON with(const T& value);
  // Reads JSON text. Numbers keep their exact decimal value. Throws DecodingError (dataCorrupted,
  // with the byte offset) for malformed text, invalid UTF-8 or numbers out of range.
  static JSON parse(std::string_view text);
  // parse() refusing text nested deeper than `maxDepth` levels (at most maxNestingDepth).
  static JSON parse(std::string_view text, int maxDepth);

  Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
  bool isNull() const noexcept { return kind() == Kind::null; }
  // Whether arrays and objects nest more than `levels` deep; looks no deeper than that.
  bool nestedDeeperThan(int levels) const noexcept;

  // Conversions back: each gives nothing unless the value is of the matching case.
  std::optional<bool> boolValue() const noexcept;
  std::optional<Decimal> decimalValue() const noexcept;
  // Numbers only, truncated toward zero and saturated (3.9 gives 3).
  std::optional<std::int64_t> intValue() const noexcept;
  std::optional<std::uint64_t> uintValue() const noexcept;
  std::optional<float> floatValue() const noexcept;
  std::optional<double> doubleValue() const noexcept;
  std::optional<std::string> stringValue() const;
  // Loosely typed: bool, Decimal, std::string, Array, Dictionary, Null.
  std::optional<Array> arrayValue() const;
  std::optional<Dictionary> dictionaryValue() const;
  // An object decoded into T; nothing on any failure.
  template <class T>
  std::optional<T> codableValue() const;

  // Direct read access without copying; null unless the value is of that case.
  const std::string* stringPointer() const noexcept { return std::get_if<std::string>(&value_); }
  const List* listPointer() const noexcept;
  const Map* mapPointer() const noexcept;

  // Edits return a new value. add(value) appends to an array; add(value, key) stores into an
  // object; remove(key) deletes from an object (a missing key is fine). Wrong case:
  // JSONError::incorrectType. The value is converted as by fromAny.
  std::optional<JSON> add(const std::any& value) const;
  std::optional<JSON> add(const std::any& value, const std::string& key) const;
  std::optional<JSON> remove(std::string_view key) const;

  // Element of an array (nothing past the end; a negative index is fatal).
  std::optional<JSON> operator[](std::int64_t index) const;
  // Member of a non-empty object (nothing when missing or not an object).
  std::optional<JSON> operator[](std::string_view key) const;

  // Dotted key-path read into an object (see key_path.hpp); nothing when absent or when the
  // value does not decode as T (a failure to decode a nested value is logged).
  template <class T>
  std::optional<T> value(const KeyPath& keyPath) const;
  // Dotted key-path write into an object (creating levels as needed); other cases are unchanged.
  // Writing an empty optional removes the entry.
  template <class T>
  void setValue(const T& value, const KeyPath& keyPath);

  // Renames object keys at every depth and optionally transforms leaf values; other cases are
  // returned unchanged. Two entries renamed onto one key is a fatal error.
  JSON mapTransform(const std::map<std::string, std::string>& keys,
                    const ValueTransform& valueTransform = nullptr) const;

  // Compact (or pretty) JSON text.
  std::string toString(bool pretty = false) const;
  std::string prettyPrint() const { return toString(true); }

  friend PELORA_API bool operator==(const JSON& a, const JSON& b) noexcept;

 private:
  using Storage = std::variant<bool, Decimal, std::string, std::shared_ptr<const List>,
                               std::shared_ptr<const Map>, Null>;
  Storage value_;

  std::any anyForKeyPath(const KeyPath& keyPath) const;
  void setAnyForKeyPath(std::any value, const KeyPath& keyPath);
  static void logKeyPathDecodeFailure(const KeyPath& keyPath, const std::exception& error);
};

// The text of JSON(dictionary) without building it: the same bytes, the same errors (thrown as
// JSONError), and a value nesting deeper than `maxDepth` levels fails as in toString().
PELORA_API std::string hostDictionaryText(const Dictionary& dictionary,
                                          int maxDepth = JSON::maxNestingDepth);

// JSON text as this library writes it (compact, numbers as exact decimals, object keys in order,
// the last of equal keys kept): the bytes of JSON::parse(text).toString(), made without building
// the value. For text that is to go into a batch as it is.
class PELORA_API JSONText {
 public:
  // Throws DecodingError as JSON::parse(text, maxDepth) does, with the same message.
  static JSONText parse(std::string_view text, int maxDepth = JSON::maxNestingDepth);

  const std::string& text() const noexcept { return text_; }
  // The text, taken out (the JSONText is left empty).
  std::string takeText() && noexcept { return std::move(text_); }
  // The kind of the root value.
  JSON::Kind kind() const noexcept { return kind_; }
  // How deep arrays and objects nest in the text ([[1]] is 2), members that a repeated key
  // replaced included (as the reader's depth limit counts them).
  int depth() const noexcept { return depth_; }

 private:
  JSONText(std::string text, JSON::Kind kind, int depth)
      : text_(std::move(text)), kind_(kind), depth_(depth) {}
  std::string text_;
  JSON::Kind kind_;
  int depth_;
};

// Where a key-path lookup that found a value it could not decode is reported. JSON knows no log:
// the library's logging installs the reporter; until then such failures are silent.
using KeyPathFailureReporter = void (*)(std::string_view message, std::string_view function,
                                        int line);
PELORA_API void setKeyPathFailureReporter(KeyPathFailureReporter reporter) noexcept;

PELORA_API void encode(Encoder& encoder, const JSON& json);
PELORA_API void encode(Encoder& encoder, Null);
PELORA_API void decode(const JSON& json, JSON& out);

// ---- Decoding records from JSON -------------------------------------------------------------

// Decodes one value: bool, integers (exact only), floating point, Decimal, std::string,
// std::optional, std::vector, string-keyed std::map, JSON, or a type with a `decode` function.
// Throws DecodingError.
template <class T>
T decodeValue(const JSON& json);

// `key` of `object` must be present (and not null unless T is optional).
template <class T>
void decodeRequired(const JSON& object, std::string_view key, T& out);
// `key` of `object` may be missing or null (both give nothing).
template <class T>
void decodeOptional(const JSON& object, std::string_view key, std::optional<T>& out);

// ---- Text ---------------------------------------------------------------------------------------

// What the templates below call into the library for (text encoding, loosely typed values and
// the decoding error).
// The loosely typed form of a value (what dictionaryValue() holds for it).
PELORA_API std::any looselyTyped(const JSON& json);
using EncodeFunction = void (*)(Encoder&, const void*);
// Appends the text of one value to `out`; on failure leaves `out` as it was and throws JSONError.
// A value nesting deeper than `maxDepth` levels fails.
PELORA_API void appendText(std::string& out, bool pretty, EncodeFunction encode, const void* value,
                           int maxDepth);
[[noreturn]] PELORA_API void throwTypeMismatch(std::string_view expected, const JSON& found);
// How messages name a kind of value ("a bool", "an array", "null").
PELORA_API std::string_view kindName(JSON::Kind kind) noexcept;

// Compact JSON text of any encodable value, or "" when it cannot be encoded.
template <class T>
std::string toString(const T& value, bool pretty = false) {
  std::string out;
  try {
    appendText(
        out, pretty, [](Encoder& e, const void* v) { e.value(*static_cast<const T*>(v)); }, &value,
        JSON::maxNestingDepth);
  } catch (const std::exception&) {
    return {};
  }
  return out;
}
template <class T>
std::string prettyPrint(const T& value) {
  return toString(value, true);
}
// Appends the compact text of `value` to `out`; throws JSONError when it cannot be encoded or
// nests deeper than `maxDepth` levels (text that is to be embedded deeper needs less).
template <class T>
void appendJSONText(std::string& out, const T& value, int maxDepth = JSON::maxNestingDepth) {
  appendText(
      out, false, [](Encoder& e, const void* v) { e.value(*static_cast<const T*>(v)); }, &value,
      maxDepth);
}
// Reads a T from JSON text; throws DecodingError.
template <class T>
T decodeFromString(std::string_view text) {
  return decodeValue<T>(JSON::parse(text));
}

// ---- Template definitions -----------------------------------------------------------------------

template <class T>
JSON JSON::with(const T& value) {
  if constexpr (std::is_same_v<T, JSON>) {
    return value;  // already JSON: a copy shares its arrays and objects
  } else {
    std::string text;
    appendJSONText(text, value);
    return parse(text);
  }
}

template <class T>
std::optional<T> JSON::codableValue() const {
  if (kind() != Kind::object) return std::nullopt;
  try {
    return decodeValue<T>(*this);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

template <class T>
std::optional<T> JSON::value(const KeyPath& keyPath) const {
  std::any found = anyForKeyPath(keyPath);
  if (!found.has_value()) return std::nullopt;
  if constexpr (std::is_same_v<T, std::any>) {
    return found;
  } else {
    if (const T* exact = std::any_cast<T>(&found)) return *exact;
    const bool nested = found.type() == typeid(Dictionary) || found.type() == typeid(Array);
    try {
      return decodeValue<T>(fromAny(found));
    } catch (const std::exception& error) {
      if (nested) logKeyPathDecodeFailure(keyPath, error);
      return std::nullopt;
    }
  }
}

template <class T>
void JSON::setValue(const T& value, const KeyPath& keyPath) {
  if constexpr (detail::IsOptional<T>::value) {
    if (!value) {
      setAnyForKeyPath(std::any(), keyPath);
    } else {
      setValue(*value, keyPath);
    }
  } else if constexpr (std::is_same_v<T, std::any>) {
    setAnyForKeyPath(value, keyPath);
  } else if constexpr (std::is_constructible_v<JSON, const T&>) {
    setAnyForKeyPath(std::any(JSON(value)), keyPath);
  } else {
    setAnyForKeyPath(std::any(JSON::with(value)), keyPath);
  }
}

template <class T>
T decodeValue(const JSON& json) {
  if constexpr (std::is_same_v<T, JSON>) {
    return json;
  } else if constexpr (std::is_same_v<T, bool>) {
    if (auto b = json.boolValue()) return *b;
    throwTypeMismatch("a bool", json);
  } else if constexpr (std::is_integral_v<T>) {
    auto d = json.decimalValue();
    if (!d || !d->isInteger()) throwTypeMismatch("an integer", json);
    if constexpr (std::is_signed_v<T>) {
      auto v = d->int64Value();
      if (Decimal(v) == *d && v >= std::numeric_limits<T>::min() &&
          v <= std::numeric_limits<T>::max())
        return static_cast<T>(v);
    } else {
      auto v = d->uint64Value();
      if (Decimal(v) == *d && v <= std::numeric_limits<T>::max()) return static_cast<T>(v);
    }
    throwTypeMismatch("an integer in range", json);
  } else if constexpr (std::is_same_v<T, float>) {
    if (auto d = json.decimalValue()) return d->floatValue();
    throwTypeMismatch("a number", json);
  } else if constexpr (std::is_floating_point_v<T>) {
    if (auto d = json.decimalValue()) return static_cast<T>(d->doubleValue());
    throwTypeMismatch("a number", json);
  } else if constexpr (std::is_same_v<T, Decimal>) {
    if (auto d = json.decimalValue()) return *d;
    throwTypeMismatch("a number", json);
  } else if constexpr (std::is_same_v<T, std::string>) {
    if (auto s = json.stringPointer()) return *s;
    throwTypeMismatch("a string", json);
  } else if constexpr (detail::IsOptional<T>::value) {
    if (json.isNull()) return T();
    return T(decodeValue<typename T::value_type>(json));
  } else if constexpr (detail::IsVector<T>::value) {
    const auto* list = json.listPointer();
    if (!list) throwTypeMismatch("an array", json);
    T out;
    out.reserve(list->size());
    for (std::size_t i = 0; i < list->size(); ++i) {
      try {
        out.push_back(decodeValue<typename T::value_type>((*list)[i]));
      } catch (const DecodingError& error) {
        throw error.nested(std::to_string(i));
      }
    }
    return out;
  } else if constexpr (detail::IsStringMap<T>::value) {
    const auto* map = json.mapPointer();
    if (!map) throwTypeMismatch("an object", json);
    T out;
    for (const auto& [key, member] : *map) {
      try {
        out.emplace(key, decodeValue<typename T::mapped_type>(member));
      } catch (const DecodingError& error) {
        throw error.nested(key);
      }
    }
    return out;
  } else {
    if (json.kind() != JSON::Kind::object) throwTypeMismatch("an object", json);
    T out{};
    decode(json, out);  // found by argument-dependent lookup
    return out;
  }
}

template <class T>
void decodeRequired(const JSON& object, std::string_view key, T& out) {
  const auto* map = object.mapPointer();
  if (!map) throw DecodingError::keyNotFound(key);
  auto it = map->find(key);
  if (it == map->end()) throw DecodingError::keyNotFound(key);
  try {
    out = decodeValue<T>(it->second);
  } catch (const DecodingError& error) {
    throw error.nested(key);
  }
}

template <class T>
void decodeOptional(const JSON& object, std::string_view key, std::optional<T>& out) {
  out.reset();
  const auto* map = object.mapPointer();
  if (!map) return;
  auto it = map->find(key);
  if (it == map->end() || it->second.isNull()) return;
  try {
    out = decodeValue<T>(it->second);
  } catch (const DecodingError& error) {
    throw error.nested(key);
  }
}

}  // namespace pelora
