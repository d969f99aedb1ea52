#include "pelora/core/dictionary.hpp"

#include <string_view>

#include "pelora/core/fatal_error.hpp"
#include "pelora/core/json.hpp"

namespace pelora {
namespace {

// A value met on the way: a host dictionary's entry (a std::any) or a JSON object's member. The
// walk only points at values; the one it finds is copied once, at the end.
struct Ref {
  const std::any* any = nullptr;
  const JSON* json = nullptr;
  explicit operator bool() const noexcept { return json || (any && any->has_value()); }
};

// A dictionary level: a host Dictionary or a JSON object.
struct Level {
  const Dictionary* dictionary = nullptr;
  const JSON::Map* map = nullptr;
  explicit operator bool() const noexcept { return dictionary || map; }
};

const JSON* jsonOf(Ref ref) noexcept {
  if (ref.json) return ref.json;
  return ref.any ? std::any_cast<JSON>(ref.any) : nullptr;
}

Level levelOf(Ref ref) noexcept {
  if (ref.any) {
    if (const auto* dictionary = std::any_cast<Dictionary>(ref.any)) return {dictionary, nullptr};
  }
  if (const JSON* json = jsonOf(ref)) return {nullptr, json->mapPointer()};
  return {};
}

Ref member(Level level, std::string_view key) {
  if (level.dictionary) {
    auto it = level.dictionary->find(std::string(key));
    if (it != level.dictionary->end()) return {&it->second, nullptr};
  } else if (level.map) {
    auto it = level.map->find(key);
    if (it != level.map->end()) return {nullptr, &it->second};
  }
  return {};
}

// Text in any of the forms a host may use for it.
std::optional<std::string_view> textOf(Ref ref) {
  if (ref.any) {
    if (const auto* s = std::any_cast<std::string>(ref.any)) return *s;
    if (const auto* s = std::any_cast<const char*>(ref.any); s && *s) return *s;
    if (const auto* s = std::any_cast<std::string_view>(ref.any)) return *s;
  }
  if (const JSON* json = jsonOf(ref); json && json->stringPointer()) return *json->stringPointer();
  return std::nullopt;
}

std::string_view withoutRootMarker(std::string_view path) {
  if (path.starts_with("$.")) return path.substr(2);
  if (path == "$") return {};
  return path;
}

bool isMissing(Ref ref) {
  if (!ref || (ref.any && std::any_cast<Null>(ref.any))) return true;
  const JSON* json = jsonOf(ref);
  return json && json->isNull();
}

bool isBlank(Ref ref) {
  if (isMissing(ref)) return true;
  auto text = textOf(ref);
  return text && text->empty();
}

// One key-path read. "@path" and "@if" values may refer to each other, to themselves, or branch
// at every level, so every step draws on a fixed budget and the walk gives up (finding nothing)
// once it is spent; the nesting of steps is bounded too, which bounds the stack.
class Walk {
 public:
  explicit Walk(Level root) : root_(root) {}

  std::any find(std::string_view path) {
    const Ref found = read(root_, path);
    if (exhausted_ || !found) return {};
    return found.any ? *found.any : looselyTyped(*found.json);
  }

 private:
  static constexpr int kMaxSteps = 10'000;
  // A path within KeyPath::maxComponents nests one level per component, with room left for
  // "@path" and "@if" hops on the way.
  static constexpr int kMaxNesting = 2 * static_cast<int>(KeyPath::maxComponents);

  class Step {
   public:
    explicit Step(Walk& walk) : walk_(walk) {
      allowed_ = walk.steps_ > 0 && walk.nesting_ < kMaxNesting;
      if (!allowed_) {
        walk.exhausted_ = true;
        return;
      }
      --walk.steps_;
      ++walk.nesting_;
    }
    ~Step() {
      if (allowed_) --walk_.nesting_;
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;
    explicit operator bool() const noexcept { return allowed_; }

   private:
    Walk& walk_;
    bool allowed_;
  };

  Ref read(Level level, std::string_view path) {
    Step step(*this);
    if (!step) return {};
    // A key that contains dots wins over the nested reading of the same text.
    if (const Ref whole = member(level, path)) return resolve(whole);
    // Otherwise the first component, or a longer dotted prefix that is a key ("Pelora.io.apiKey").
    for (auto dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.', dot + 1)) {
      const Ref first = member(level, path.substr(0, dot));
      if (!first) continue;
      const Level nested = levelOf(resolve(first));
      if (!nested) continue;
      if (const Ref found = read(nested, path.substr(dot + 1))) return found;
      if (exhausted_) return {};
    }
    return {};
  }

  Ref resolve(Ref value) {
    Step step(*this);
    if (!step) return {};
    const Level level = levelOf(value);
    if (!level) return value;
    if (const Ref path = member(level, "@path")) {
      if (auto text = textOf(path)) return read(root_, withoutRootMarker(*text));
      return {};
    }
    if (const Ref condition = member(level, "@if")) {
      const Level rules = levelOf(condition);
      if (!rules) return {};
      bool holds = false;
      if (const Ref subject = member(rules, "exists")) {
        holds = !isMissing(operand(subject));
      } else if (const Ref blank = member(rules, "blank")) {
        holds = isBlank(operand(blank));
      }
      const Ref branch = member(rules, holds ? "then" : "else");
      return branch ? operand(branch) : Ref{};
    }
    return value;
  }

  // An operand of "@if": a "$."-path, a special value, or a literal.
  Ref operand(Ref value) {
    if (auto text = textOf(value); text && text->starts_with("$.")) {
      return read(root_, withoutRootMarker(*text));
    }
    return resolve(value);
  }

  const Level root_;
  int steps_ = kMaxSteps;
  int nesting_ = 0;
  bool exhausted_ = false;
};

// Walks down one level per component without recursing, so that a long path cannot exhaust the
// stack; nested dictionaries are changed in place.
void writePath(Dictionary& dictionary, std::any value, std::string_view path) {
  Dictionary* current = &dictionary;
  for (;;) {
    auto dot = path.find('.');
    if (dot == std::string_view::npos || current->contains(std::string(path))) {
      if (value.has_value()) {
        current->insert_or_assign(std::string(path), std::move(value));
      } else {
        current->erase(std::string(path));
      }
      return;
    }
    std::any& slot = (*current)[std::string(path.substr(0, dot))];
    if (!std::any_cast<Dictionary>(&slot)) {
      const auto* json = std::any_cast<JSON>(&slot);
      auto existing = json ? json->dictionaryValue() : std::nullopt;
      slot = existing ? std::move(*existing) : Dictionary{};
    }
    current = std::any_cast<Dictionary>(&slot);
    path.remove_prefix(dot + 1);
  }
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
  if (!keyPath.withinLimit()) return {};
  return Walk({&dictionary, nullptr}).find(keyPath.text());
}

std::any valueForKeyPath(const JSON& object, const KeyPath& keyPath) {
  if (!keyPath.withinLimit()) return {};
  return Walk({nullptr, object.mapPointer()}).find(keyPath.text());
}

void setValueForKeyPath(Dictionary& dictionary, std::any value, const KeyPath& keyPath) {
  if (!keyPath.withinLimit()) return;
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
      fatalError("Duplicate values for key: '" + key + "'");
    }
  }
  return out;
}

}  // namespace pelora
