// Loosely typed host values (what an application hands in as properties or traits) and the
// dictionary operations on them: key-path read and write, and key renaming.
//
// Key paths walk one dictionary level per dotted component. A key that itself contains dots (such
// as "Pelora.io") is found when the dictionary holds the remaining text as one key. Two special
// values are resolved while reading, against the dictionary the walk started from:
//   {"@path": "$.a.b"}                          the value at a.b ("$." is optional)
//   {"@if": {"exists": X, "then": A, "else": B}} A when X is present and not null, else B
//   {"@if": {"blank": X, "then": A, "else": B}}  A when X is missing, null or "", else B
// where X, A and B may be "$."-prefixed paths, {"@path": ...} values or literal values.
#pragma once

#include <any>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "pelora/core/export.h"
#include "pelora/core/key_path.hpp"

namespace pelora {

// The loosely typed null (what a host puts in a Dictionary for "no value").
struct PELORA_API Null {
  friend bool operator==(Null, Null) = default;
};

// std::any holding bool, any arithmetic type, Decimal, std::string, const char*,
// std::string_view, Null, Array, Dictionary or JSON.
using Array = std::vector<std::any>;
using Dictionary = std::map<std::string, std::any>;

// Called with a (renamed) key and a loosely typed value; returns the replacement.
using ValueTransform = std::function<std::any(const std::string& key, const std::any& value)>;

// The value at `keyPath`, or an empty std::any when there is none. A lookup takes at most a fixed
// number of steps: "@path" and "@if" values that refer to themselves find nothing. A path of more
// than KeyPath::maxComponents components finds nothing.
PELORA_API std::any valueForKeyPath(const Dictionary& dictionary, const KeyPath& keyPath);

// Stores `value` at `keyPath`, creating dictionaries for missing levels and replacing
// non-dictionary values on the way; an empty `value` removes the entry. A path of more than
// KeyPath::maxComponents components changes nothing.
PELORA_API void setValueForKeyPath(Dictionary& dictionary, std::any value, const KeyPath& keyPath);

class JSON;
// valueForKeyPath on a JSON object, walked in place; JSON values found come back loosely typed.
PELORA_API std::any valueForKeyPath(const JSON& object, const KeyPath& keyPath);

// A copy with keys renamed through `keys` (one step, at every depth, inside arrays too) and leaf
// values (including whole arrays, after their elements) passed through `valueTransform` with the
// renamed key. Two entries that end up under one key are a fatal programming error.
PELORA_API Dictionary mapTransform(const Dictionary& dictionary,
                                   const std::map<std::string, std::string>& keys,
                                   const ValueTransform& valueTransform = nullptr);

}  // namespace pelora
