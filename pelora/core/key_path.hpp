// KeyPath: dotted text ("context.device.id") naming a value inside nested dictionaries, split into
// its first component (`current`) and the rest (`remaining`).
#pragma once

#include "pelora/core/export.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace pelora {

class PELORA_API KeyPath {
 public:
  // The most components a path may have, reading and writing alike: a longer path reads nothing
  // and writes nothing (a write could otherwise make a value no read reaches).
  static constexpr std::size_t maxComponents = 128;

  KeyPath(std::string text) : text_(std::move(text)) {}  // NOLINT(google-explicit-constructor)
  KeyPath(std::string_view text) : text_(text) {}        // NOLINT(google-explicit-constructor)
  KeyPath(const char* text) : text_(text) {}             // NOLINT(google-explicit-constructor)

  // The whole dotted text.
  const std::string& text() const noexcept { return text_; }
  // Up to the first ".".
  std::string_view current() const noexcept { return std::string_view(text_).substr(0, dot()); }
  // How many components the text has ("a.b" has 2).
  std::size_t componentCount() const noexcept {
    return static_cast<std::size_t>(std::count(text_.begin(), text_.end(), '.')) + 1;
  }
  bool withinLimit() const noexcept { return componentCount() <= maxComponents; }
  // After the first "."; nothing for a single component.
  std::optional<KeyPath> remaining() const {
    auto d = dot();
    if (d == std::string::npos) return std::nullopt;
    return KeyPath(std::string_view(text_).substr(d + 1));
  }

 private:
  std::size_t dot() const noexcept { return text_.find('.'); }
  std::string text_;
};

}  // namespace pelora
