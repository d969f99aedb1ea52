#include "pelora/core/dictionary.hpp"

#include <string_view>

#include "pelora/core/json.hpp"
#include "pelora/platform/console.hpp"

namespace pelora {
namespace {

// "@path" values may point at further "@path" values; a cycle must end, not recurse forever.
constexpr int maxIndirections = 32;

std::any readPath(const Dictionary& dictionary, std::string_view path, const Dictionary& root,
                  int depth);

// A nested dictionary, whether the host stored it as a Dictionary or as a JSON object.
std::optional<Dictionary> asDictionary(const std::any& value) {
  if (const auto* d = std::any_cast<Dictionary>(&value)) return *d;
  if (const auto* json = std::any_cast<JSON>(&value)) return json->dictionaryValue();
  return std::nullopt;
}

const std::any* member(const Dictionary& dictionary, std::string_view key) {
  auto it = dictionary.find(std::string(key));
  return it == dictionary.end() ? nullptr : &it->second;
}

// Text in any of the forms a host may use for it.
std::optional<std::string_view> textOf(const std::any& value) {
  if (const auto* s = std::any_cast<std::string>(&value)) return *s;
  if (const auto* s = std::any_cast<const char*>(&value); s && *s) return *s;
  if (const auto* s = std::any_cast<std::string_view>(&value)) return *s;
  if (const auto* json = std::any_cast<JSON>(&value); json && json->stringPointer()) {
    return *json->stringPointer();
  }
  return std::nullopt;
}

std::string_view withoutRootMarker(std::string_view path) {
  if (path.starts_with("$.")) return path.substr(2);
  if (path == "$") return {};
  return path;
}

bool isMissing(const std::any& value) {
  if (!value.has_value() || std::any_cast<Null>(&value)) return true;
  const auto* json = std::any_cast<JSON>(&value);
  return json && json->isNull();
}

bool isBlank(const std::any& value) {
  if (isMissing(value)) return true;
  auto text = textOf(value);
  return text && text->empty();
}

std::any resolve(const std::any& value, const Dictionary& root, int depth);

// An operand of "@if": a "$."-path, a special value, or a literal.
std::any operand(const std::any& value, const Dictionary& root, int depth) {
  if (auto text = textOf(value); text && text->starts_with("$.")) {
    return readPath(root, withoutRootMarker(*text), root, depth + 1);
  }
  return resolve(value, root, depth);
}

std::any resolve(const std::any& value, const Dictionary& root, int depth) {
  if (depth > maxIndirections) return {};
  const auto* dictionary = std::any_cast<Dictionary>(&value);
  if (!dictionary) return value;
  if (const std::any* path = member(*dictionary, "@path")) {
    if (auto text = textOf(*path)) return readPath(root, withoutRootMarker(*text), root, depth + 1);
    return {};
  }
  if (const std::any* condition = member(*dictionary, "@if")) {
    const auto* rules = std::any_cast<Dictionary>(condition);
    if (!rules) return {};
    bool holds = false;
    if (const std::any* subject = member(*rules, "exists")) {
      holds = !isMissing(operand(*subject, root, depth));
    } else if (const std::any* subject = member(*rules, "blank")) {
      holds = isBlank(operand(*subject, root, depth));
    }
    const std::any* branch = member(*rules, holds ? "then" : "else");
    return branch ? operand(*branch, root, depth + 1) : std::any();
  }
  return value;
}

std::any readPath(const Dictionary& dictionary, std::string_view path, const Dictionary& root,
                  int depth) {
  if (depth > maxIndirections) return {};
  // A key that contains dots wins over the nested reading of the same text.
  if (const std::any* whole = member(dictionary, path)) return resolve(*whole, root, depth);
  // Otherwise the first component, or a longer dotted prefix that is a key ("Pelora.io.apiKey").
  for (auto dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.', dot + 1)) {
    const std::any* first = member(dictionary, path.substr(0, dot));
    if (!first) continue;
    auto nested = asDictionary(resolve(*first, root, depth));
    if (!nested) continue;
    std::any found = readPath(*nested, path.substr(dot + 1), root, depth);
    if (found.has_value()) return found;
  }
  return {};
}

void writePath(Dictionary& dictionary, std::any value, std::string_view path) {
  auto dot = path.find('.');
  if (dot == std::string_view::npos || dictionary.contains(std::string(path))) {
    if (value.has_value()) {
      dictionary.insert_or_assign(std::string(path), std::move(value));
    } else {
      dictionary.erase(std::string(path));
    }
    return;
  }
  std::string key(path.substr(0, dot));
  Dictionary nested;
  if (auto it = dictionary.find(key); it != dictionary.end()) {
    if (auto existing = asDictionary(it->second)) nested = std::move(*existing);
  }
  writePath(nested, std::move(value), path.substr(dot + 1));
  dictionary.insert_or_assign(std::move(key), std::move(nested));
}

std::any transformValue(const std::any& value, const std::map<std::string, std::string>& keys,
                        const ValueTransform& valueTransform);

Array transformArray(const Array& array, const std::map<std::string, std::string>& keys,
                     const ValueTransform& valueTransform) {
  Array out;
  out.reserve(array.size());
  for (const auto& element : array) out.push_back(transformValue(element, keys, valueTransform));
  return out;
}

// Renaming reaches into nested dictionaries and arrays; leaves are left for the caller.
std::any transformValue(const std::any& value, const std::map<std::string, std::string>& keys,
                        const ValueTransform& valueTransform) {
  if (const auto* d = std::any_cast<Dictionary>(&value))
    return mapTransform(*d, keys, valueTransform);
  if (const auto* a = std::any_cast<Array>(&value)) return transformArray(*a, keys, valueTransform);
  return value;
}

}  // namespace

std::any valueForKeyPath(const Dictionary& dictionary, const KeyPath& keyPath) {
  return readPath(dictionary, keyPath.text(), dictionary, 0);
}

void setValueForKeyPath(Dictionary& dictionary, std::any value, const KeyPath& keyPath) {
  writePath(dictionary, std::move(value), keyPath.text());
}

Dictionary mapTransform(const Dictionary& dictionary,
                        const std::map<std::string, std::string>& keys,
                        const ValueTransform& valueTransform) {
  Dictionary out;
  for (const auto& [oldKey, value] : dictionary) {
    auto renamed = keys.find(oldKey);
    const std::string& key = renamed == keys.end() ? oldKey : renamed->second;
    std::any newValue;
    if (const auto* d = std::any_cast<Dictionary>(&value)) {
      newValue = mapTransform(*d, keys, valueTransform);
    } else {
      newValue = transformValue(value, keys, valueTransform);
      if (valueTransform) newValue = valueTransform(key, newValue);
    }
    if (!out.emplace(key, std::move(newValue)).second) {
      platform::fatalError("Duplicate values for key: '" + key + "'");
    }
  }
  return out;
}

}  // namespace pelora
