#include "pelora/core/json.hpp"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <typeinfo>

#include "pelora/core/fatal_error.hpp"

namespace pelora {

// ---- JSONError ----------------------------------------------------------------------------------

JSONError::JSONError(Kind kind, std::string type) : kind_(kind), type_(std::move(type)) {
  switch (kind_) {
    case Kind::nonJSONType:
      message_ = "nonJSONType(type: " + type_ + ")";
      break;
    case Kind::unknown:
      message_ = "unknown";
      break;
    case Kind::incorrectType:
      message_ = "incorrectType";
      break;
  }
}

JSONError JSONError::nonJSONType(std::string type) {
  return {Kind::nonJSONType, std::move(type)};
}
JSONError JSONError::unknown() {
  return {Kind::unknown, {}};
}
JSONError JSONError::incorrectType() {
  return {Kind::incorrectType, {}};
}

// ---- Construction -------------------------------------------------------------------------------

namespace {

std::string demangledName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

template <class F>
JSON floatingNumber(F value, const char* typeName) {
  std::optional<Decimal> decimal;
  if constexpr (std::is_same_v<F, float>) {
    decimal = Decimal::fromFloat(value);
  } else {
    decimal = Decimal::fromDouble(static_cast<double>(value));
  }
  if (!decimal)
    throw JSONError::nonJSONType(std::string(typeName) + "(" + std::to_string(value) + ")");
  return JSON(*decimal);
}

// The value held by `value` when it is exactly a T. `type` is value.type(), read once by the
// caller: std::any_cast on a mismatch asks the any for its type again each time.
template <class T>
const T* held(const std::any& value, const std::type_info& type) {
  return type == typeid(T) ? std::any_cast<T>(&value) : nullptr;
}

template <class I>
bool tryInteger(const std::any& value, const std::type_info& type, JSON& out) {
  if (const I* v = held<I>(value, type)) {
    out = JSON(*v);
    return true;
  }
  return false;
}

JSONError tooDeep() {
  return JSONError::nonJSONType("a value nested deeper than " +
                                std::to_string(JSON::maxNestingDepth) + " levels");
}

JSON convert(const std::any& value, int levels);

// The members of a dictionary that may nest `levels` deep.
JSON::Map mapFromDictionary(const Dictionary& dictionary, int levels) {
  JSON::Map map;
  for (const auto& [key, value] : dictionary)
    map.emplace_hint(map.end(), key, convert(value, levels));
  return map;
}

JSON checked(JSON json, int levels) {
  if (json.nestedDeeperThan(levels)) throw tooDeep();
  return json;
}

// Everything but the host's own containers. Kept out of convert() so that the frame that recurses
// stays small.
[[gnu::noinline]] JSON convertLeaf(const std::any& value, const std::type_info& type, int levels) {
  // Most common host types first: a mismatch costs a type_info comparison.
  if (const auto* s = held<std::string>(value, type)) return JSON(*s);
  JSON out;
  if (tryInteger<int>(value, type, out) || tryInteger<std::int64_t>(value, type, out)) return out;
  if (const auto* d = held<double>(value, type)) return JSON(*d);
  if (const auto* b = held<bool>(value, type)) return JSON(*b);
  if (const auto* s = held<const char*>(value, type)) return *s ? JSON(*s) : JSON();
  if (const auto* json = held<JSON>(value, type)) return checked(*json, levels);
  if (const auto* d = held<Decimal>(value, type)) return JSON(*d);
  if (held<Null>(value, type)) return JSON();
  if (const auto* s = held<std::string_view>(value, type)) return JSON(*s);
  if (const auto* s = held<char*>(value, type)) return *s ? JSON(*s) : JSON();
  if (held<std::nullptr_t>(value, type)) return JSON();
  if (const auto* f = held<float>(value, type)) return JSON(*f);
  if (const auto* f = held<long double>(value, type)) return floatingNumber(*f, "long double");
  if (tryInteger<unsigned>(value, type, out) || tryInteger<long>(value, type, out) ||
      tryInteger<unsigned long>(value, type, out) || tryInteger<long long>(value, type, out) ||
      tryInteger<unsigned long long>(value, type, out) || tryInteger<short>(value, type, out) ||
      tryInteger<unsigned short>(value, type, out) || tryInteger<char>(value, type, out) ||
      tryInteger<signed char>(value, type, out) || tryInteger<unsigned char>(value, type, out) ||
      tryInteger<char8_t>(value, type, out) || tryInteger<char16_t>(value, type, out) ||
      tryInteger<char32_t>(value, type, out) || tryInteger<wchar_t>(value, type, out))
    return out;
  if (const auto* list = held<JSON::List>(value, type)) return checked(JSON(*list), levels);
  if (const auto* map = held<JSON::Map>(value, type)) return checked(JSON(*map), levels);
  throw JSONError::nonJSONType(demangledName(type));
}

// The loosely typed construction of a value that may nest `levels` deep. The limit is checked
// before descending, so no host value can take the stack deeper than the limit.
// The host types most values come as, told apart by the address of their type's name: one
// pointer comparison each, where type_info's == compares names as strings when they differ. A
// type whose type_info lives elsewhere (another library's copy) takes the full comparisons below.
template <class T>
const T* sameTypeInfo(const std::any& value, const std::type_info& type) {
  return type.name() == typeid(T).name() ? std::any_cast<T>(&value) : nullptr;
}

JSON convert(const std::any& value, int levels) {
  if (!value.has_value()) return JSON();
  const std::type_info& type = value.type();
  if (const auto* s = sameTypeInfo<std::string>(value, type)) return JSON(*s);
  if (const auto* i = sameTypeInfo<int>(value, type)) return JSON(*i);
  if (const auto* i = sameTypeInfo<std::int64_t>(value, type)) return JSON(*i);
  if (const auto* b = sameTypeInfo<bool>(value, type)) return JSON(*b);
  if (const auto* d = sameTypeInfo<Decimal>(value, type)) return JSON(*d);
  if (const auto* dict = held<Dictionary>(value, type)) {
    if (levels < 1) throw tooDeep();
    return JSON(mapFromDictionary(*dict, levels - 1));
  }
  if (const auto* array = held<Array>(value, type)) {
    if (levels < 1) throw tooDeep();
    JSON::List list;
    list.reserve(array->size());
    for (const auto& element : *array) list.push_back(convert(element, levels - 1));
    return JSON(std::move(list));
  }
  return convertLeaf(value, type, levels);
}

}  // namespace

JSON::JSON(double value) : JSON(floatingNumber(value, "double")) {}
JSON::JSON(float value) : JSON(floatingNumber(value, "float")) {}
JSON::JSON(List elements) : value_(std::make_shared<const List>(std::move(elements))) {}
JSON::JSON(Map members) : value_(std::make_shared<const Map>(std::move(members))) {}
JSON::JSON(const Dictionary& dictionary)
    : value_(std::make_shared<const Map>(mapFromDictionary(dictionary, maxNestingDepth - 1))) {}

namespace {
// What convert() would build, written straight to `encoder`: the host's containers and common
// leaves directly, any other leaf through convertLeaf (so every rule and error is the same).
void writeHostValue(Encoder& encoder, const std::any& value, int levels) {
  if (!value.has_value()) return encoder.writeNull();
  const std::type_info& type = value.type();
  if (const auto* s = sameTypeInfo<std::string>(value, type)) return encoder.writeString(*s);
  if (const auto* i = sameTypeInfo<int>(value, type)) return encoder.writeInt(*i);
  if (const auto* i = sameTypeInfo<std::int64_t>(value, type)) return encoder.writeInt(*i);
  if (const auto* b = sameTypeInfo<bool>(value, type)) return encoder.writeBool(*b);
  if (const auto* d = sameTypeInfo<Decimal>(value, type)) return encoder.writeDecimal(*d);
  if (const auto* dict = held<Dictionary>(value, type)) {
    if (levels < 1) throw tooDeep();
    encoder.beginObject();
    for (const auto& [key, element] : *dict) {
      encoder.writeKey(key);
      writeHostValue(encoder, element, levels - 1);
    }
    return encoder.endObject();
  }
  if (const auto* array = held<Array>(value, type)) {
    if (levels < 1) throw tooDeep();
    encoder.beginArray();
    for (const auto& element : *array) writeHostValue(encoder, element, levels - 1);
    return encoder.endArray();
  }
  encode(encoder, convertLeaf(value, type, levels));
}
}  // namespace

std::string hostDictionaryText(const Dictionary& dictionary, int maxDepth) {
  std::string text;
  appendText(
      text, false,
      [](Encoder& encoder, const void* value) {
        encoder.beginObject();
        for (const auto& [key, element] : *static_cast<const Dictionary*>(value)) {
          encoder.writeKey(key);
          writeHostValue(encoder, element, JSON::maxNestingDepth - 1);  // as JSON(dictionary)
        }
        encoder.endObject();
      },
      &dictionary, maxDepth);
  return text;
}

JSON JSON::fromAny(const std::any& value) {
  return convert(value, maxNestingDepth);
}

std::any looselyTyped(const JSON& json) {
  switch (json.kind()) {
    case JSON::Kind::boolean:
      return *json.boolValue();
    case JSON::Kind::number:
      return *json.decimalValue();
    case JSON::Kind::string:
      return *json.stringPointer();
    case JSON::Kind::array:
      return *json.arrayValue();
    case JSON::Kind::object:
      return *json.dictionaryValue();
    case JSON::Kind::null:
      break;
  }
  return Null{};
}

// ---- Conversions back ---------------------------------------------------------------------------

std::optional<bool> JSON::boolValue() const noexcept {
  if (const bool* b = std::get_if<bool>(&value_)) return *b;
  return std::nullopt;
}

std::optional<Decimal> JSON::decimalValue() const noexcept {
  if (const Decimal* d = std::get_if<Decimal>(&value_)) return *d;
  return std::nullopt;
}

std::optional<std::int64_t> JSON::intValue() const noexcept {
  if (const Decimal* d = std::get_if<Decimal>(&value_)) return d->int64Value();
  return std::nullopt;
}

std::optional<std::uint64_t> JSON::uintValue() const noexcept {
  if (const Decimal* d = std::get_if<Decimal>(&value_)) return d->uint64Value();
  return std::nullopt;
}

std::optional<float> JSON::floatValue() const noexcept {
  if (const Decimal* d = std::get_if<Decimal>(&value_)) return d->floatValue();
  return std::nullopt;
}

std::optional<double> JSON::doubleValue() const noexcept {
  if (const Decimal* d = std::get_if<Decimal>(&value_)) return d->doubleValue();
  return std::nullopt;
}

std::optional<std::string> JSON::stringValue() const {
  if (const auto* s = std::get_if<std::string>(&value_)) return *s;
  return std::nullopt;
}

const JSON::List* JSON::listPointer() const noexcept {
  if (const auto* p = std::get_if<std::shared_ptr<const List>>(&value_)) return p->get();
  return nullptr;
}

const JSON::Map* JSON::mapPointer() const noexcept {
  if (const auto* p = std::get_if<std::shared_ptr<const Map>>(&value_)) return p->get();
  return nullptr;
}

std::optional<Array> JSON::arrayValue() const {
  const List* list = listPointer();
  if (!list) return std::nullopt;
  Array array;
  array.reserve(list->size());
  for (const JSON& element : *list) array.push_back(looselyTyped(element));
  return array;
}

std::optional<Dictionary> JSON::dictionaryValue() const {
  const Map* map = mapPointer();
  if (!map) return std::nullopt;
  Dictionary dictionary;
  for (const auto& [key, member] : *map)
    dictionary.emplace_hint(dictionary.end(), key, looselyTyped(member));
  return dictionary;
}

bool JSON::nestedDeeperThan(int levels) const noexcept {
  if (const List* list = listPointer()) {
    if (levels <= 0) return true;
    for (const JSON& element : *list) {
      if (element.nestedDeeperThan(levels - 1)) return true;
    }
  } else if (const Map* map = mapPointer()) {
    if (levels <= 0) return true;
    for (const auto& [key, member] : *map) {
      if (member.nestedDeeperThan(levels - 1)) return true;
    }
  }
  return false;
}

// ---- Edits and lookup ---------------------------------------------------------------------------

std::optional<JSON> JSON::add(const std::any& value) const {
  const List* list = listPointer();
  if (!list) throw JSONError::incorrectType();
  List copy = *list;
  copy.push_back(convert(value, maxNestingDepth - 1));
  return JSON(std::move(copy));
}

std::optional<JSON> JSON::add(const std::any& value, const std::string& key) const {
  const Map* map = mapPointer();
  if (!map) throw JSONError::incorrectType();
  JSON converted = convert(value, maxNestingDepth - 1);
  Map copy = *map;
  copy.insert_or_assign(key, std::move(converted));
  return JSON(std::move(copy));
}

std::optional<JSON> JSON::remove(std::string_view key) const {
  const Map* map = mapPointer();
  if (!map) throw JSONError::incorrectType();
  Map copy = *map;
  if (auto it = copy.find(key); it != copy.end()) copy.erase(it);
  return JSON(std::move(copy));
}

std::optional<JSON> JSON::operator[](std::int64_t index) const {
  const List* list = listPointer();
  if (!list) return std::nullopt;
  if (index < 0) fatalError("JSON array index out of range: " + std::to_string(index));
  if (static_cast<std::uint64_t>(index) >= list->size()) return std::nullopt;
  return (*list)[static_cast<std::size_t>(index)];
}

std::optional<JSON> JSON::operator[](std::string_view key) const {
  const Map* map = mapPointer();
  if (!map || map->empty()) return std::nullopt;
  auto it = map->find(key);
  if (it == map->end()) return std::nullopt;
  return it->second;
}

std::any JSON::anyForKeyPath(const KeyPath& keyPath) const {
  if (kind() != Kind::object) return {};
  return valueForKeyPath(*this, keyPath);
}

void JSON::setAnyForKeyPath(std::any value, const KeyPath& keyPath) {
  if (kind() != Kind::object) return;
  Dictionary dictionary = *dictionaryValue();
  setValueForKeyPath(dictionary, std::move(value), keyPath);
  try {
    *this = JSON(dictionary);
  } catch (const JSONError&) {
    // A value that has no JSON form leaves the receiver as it was.
  }
}

namespace {
constinit std::atomic<KeyPathFailureReporter> keyPathFailureReporter{nullptr};
}  // namespace

void setKeyPathFailureReporter(KeyPathFailureReporter reporter) noexcept {
  keyPathFailureReporter.store(reporter, std::memory_order_release);
}

void JSON::logKeyPathDecodeFailure(const KeyPath& keyPath, const std::exception& error) {
  auto report = keyPathFailureReporter.load(std::memory_order_acquire);
  if (!report) return;
  report("Unable to decode object (" + keyPath.text() + ") to a Codable: " + error.what(),
         "subscript(keyPath:)", __LINE__);
}

JSON JSON::mapTransform(const std::map<std::string, std::string>& keys,
                        const ValueTransform& valueTransform) const {
  if (kind() != Kind::object) return *this;
  return JSON(pelora::mapTransform(*dictionaryValue(), keys, valueTransform));
}

std::string JSON::toString(bool pretty) const {
  return pelora::toString(*this, pretty);
}

bool operator==(const JSON& a, const JSON& b) noexcept {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case JSON::Kind::array: {
      const auto* x = a.listPointer();
      const auto* y = b.listPointer();
      return x == y || *x == *y;
    }
    case JSON::Kind::object: {
      const auto* x = a.mapPointer();
      const auto* y = b.mapPointer();
      return x == y || *x == *y;
    }
    default:
      return a.value_ == b.value_;
  }
}

// ---- Coding -------------------------------------------------------------------------------------

void encode(Encoder& encoder, const JSON& json) {
  switch (json.kind()) {
    case JSON::Kind::boolean:
      encoder.writeBool(*json.boolValue());
      return;
    case JSON::Kind::number:
      encoder.writeDecimal(*json.decimalValue());
      return;
    case JSON::Kind::string:
      encoder.writeString(*json.stringPointer());
      return;
    case JSON::Kind::array:
      encoder.beginArray();
      for (const JSON& element : *json.listPointer()) encode(encoder, element);
      encoder.endArray();
      return;
    case JSON::Kind::object:
      encoder.beginObject();
      for (const auto& [key, member] : *json.mapPointer()) {
        encoder.writeKey(key);
        encode(encoder, member);
      }
      encoder.endObject();
      return;
    case JSON::Kind::null:
      encoder.writeNull();
      return;
  }
}

void encode(Encoder& encoder, Null) {
  encoder.writeNull();
}

void decode(const JSON& json, JSON& out) {
  out = json;
}

}  // namespace pelora
