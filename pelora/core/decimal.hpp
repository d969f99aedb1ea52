// Decimal: an exact base-10 number (sign, up to 38 significant digits, exponent -128...127), the
// payload of every JSON number. Values are kept normalised (no trailing zeros in the digits, except
// those that values beyond 10^127 need to keep the exponent at 127), so 1.10 and 1.1 are the same
// value. Parsing never rounds: text that no mantissa and exponent in range hold is rejected.
#pragma once

#include "pelora/core/export.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace pelora {

class PELORA_API Decimal {
 public:
  static constexpr int maxDigits = 38;
  static constexpr int minExponent = -128;
  static constexpr int maxExponent = 127;
  // Longest text that write() produces (sign, 38 digits, up to 128 zeros, point).
  static constexpr std::size_t maxTextLength = 1 + maxDigits + 129 + 2;

  // Zero.
  constexpr Decimal() = default;
  // Any integer converts exactly.
  template <class I>
  requires(std::is_integral_v<I> && !std::is_same_v<I, bool>)
      Decimal(I value) {  // NOLINT(google-explicit-constructor): integers are numbers
    if constexpr (std::is_signed_v<I>) {
      negative_ = value < 0;
      lo_ = negative_ ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    } else {
      lo_ = static_cast<std::uint64_t>(value);
    }
    while (lo_ != 0 && lo_ % 10 == 0) {
      lo_ /= 10;
      ++exponent_;
    }
  }

  // Parses JSON number text ("-12.5e3"); nothing for bad syntax or a value out of range.
  static std::optional<Decimal> parse(std::string_view text) noexcept;
  // The shortest decimal that reads back as `value`; nothing for NaN, infinities or out of range.
  static std::optional<Decimal> fromDouble(double value) noexcept;
  static std::optional<Decimal> fromFloat(float value) noexcept;

  // Plain notation without exponent ("0.001", "1200"); every digit is kept.
  std::string toString() const;
  // Writes the same text into `out` (at least maxTextLength bytes); returns its length.
  std::size_t write(char* out) const noexcept;

  // Conversions truncate toward zero and saturate at the target's limits (negative to unsigned
  // gives 0). Floating conversions round to nearest.
  std::int64_t int64Value() const noexcept;
  std::uint64_t uint64Value() const noexcept;
  double doubleValue() const noexcept;
  float floatValue() const noexcept;

  bool isZero() const noexcept { return hi_ == 0 && lo_ == 0; }
  bool isNegative() const noexcept { return negative_; }
  bool isInteger() const noexcept { return exponent_ >= 0; }
  int exponent() const noexcept { return exponent_; }

  friend bool operator==(const Decimal&, const Decimal&) = default;
  friend PELORA_API std::strong_ordering operator<=>(const Decimal& a, const Decimal& b) noexcept;

 private:
  // value = (negative ? -1 : 1) * (hi_ * 2^64 + lo_) * 10^exponent_; digits without trailing zeros
  // unless exponent_ is maxExponent.
  std::uint64_t hi_ = 0;
  std::uint64_t lo_ = 0;
  std::int16_t exponent_ = 0;
  bool negative_ = false;

  friend struct DecimalAccess;
};

}  // namespace pelora
