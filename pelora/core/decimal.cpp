#include "pelora/core/decimal.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

namespace pelora {
namespace {

__extension__ typedef unsigned __int128 uint128;

constexpr std::array<uint128, Decimal::maxDigits + 1> makePowersOfTen() {
  std::array<uint128, Decimal::maxDigits + 1> powers{};
  powers[0] = 1;
  for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}

// kPow10[n] = 10^n; 10^38 still fits in 128 bits, so every mantissa is below kPow10[maxDigits].
constexpr auto kPow10 = makePowersOfTen();

constexpr std::uint64_t kUint64Max = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kTenTo19 = 10'000'000'000'000'000'000ULL;

// The widest texts: all digits followed by maxExponent zeros, and "0." followed by -minExponent
// fraction digits.
static_assert(Decimal::maxTextLength >= 1 + Decimal::maxDigits + Decimal::maxExponent);
static_assert(Decimal::maxTextLength >= 1 + 2 + -Decimal::minExponent);

// Caps the exponent read from text well beyond anything valid, so absurdly long exponents can
// neither overflow nor wrap into range.
constexpr std::int64_t kExponentCap = 1'000'000'000'000'000;

constexpr bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

uint128 combine(std::uint64_t hi, std::uint64_t lo) noexcept {
  return (static_cast<uint128>(hi) << 64) | lo;
}

// Number of decimal digits of `m` (0 for zero).
int digitCount(uint128 m) noexcept {
  return static_cast<int>(std::upper_bound(kPow10.begin(), kPow10.end(), m) - kPow10.begin());
}

// Writes the digits of a nonzero mantissa; returns their count.
std::size_t writeDigits(char* out, std::uint64_t hi, std::uint64_t lo) noexcept {
  if (hi == 0) return static_cast<std::size_t>(std::to_chars(out, out + 20, lo).ptr - out);
  // Below 10^38, so the quotient by 10^19 fits in 64 bits; the remainder is zero-padded.
  const uint128 m = combine(hi, lo);
  const auto head = static_cast<std::uint64_t>(m / kTenTo19);
  auto tail = static_cast<std::uint64_t>(m % kTenTo19);
  char* p = std::to_chars(out, out + 20, head).ptr;
  for (int i = 18; i >= 0; --i) {
    p[i] = static_cast<char>('0' + tail % 10);
    tail /= 10;
  }
  return static_cast<std::size_t>(p + 19 - out);
}

// Integer part of m * 10^exponent, saturated at UINT64_MAX.
std::uint64_t integerMagnitude(uint128 m, int exponent) noexcept {
  if (exponent >= 0) {
    // m >= 1, so anything from 10^20 up is past the 64-bit range.
    if (exponent >= 20) return kUint64Max;
    if (m > kUint64Max / kPow10[static_cast<std::size_t>(exponent)]) return kUint64Max;
    return static_cast<std::uint64_t>(m * kPow10[static_cast<std::size_t>(exponent)]);
  }
  if (-exponent > Decimal::maxDigits) return 0;
  const uint128 q = m / kPow10[static_cast<std::size_t>(-exponent)];
  return q > kUint64Max ? kUint64Max : static_cast<std::uint64_t>(q);
}

// Reads decimal text with from_chars (correctly rounded for F itself, no detour through double).
// from_chars leaves the value untouched when out of range, so pick infinity or zero from the
// magnitude: `leadingExponent` is the power of ten of the first digit.
template <class F>
F readFloating(const char* text, std::size_t length, bool negative, int leadingExponent) noexcept {
  F value = 0;
  const auto result = std::from_chars(text, text + length, value);
  if (result.ec == std::errc::result_out_of_range) {
    value = leadingExponent >= 0 ? std::numeric_limits<F>::infinity() : F(0);
    return negative ? -value : value;
  }
  return value;
}

// Shortest round-trip digits of a binary float, read back exactly. Scientific format is asked for
// explicitly: the default switches to fixed notation for large integral values and then writes
// every digit of the binary value (1.2345679e11f as 123456790528), which is not the shortest.
template <class F>
std::optional<Decimal> fromShortestText(F value) noexcept {
  if (!std::isfinite(value)) return std::nullopt;
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  if (result.ec != std::errc{}) return std::nullopt;
  return Decimal::parse(std::string_view(buffer, static_cast<std::size_t>(result.ptr - buffer)));
}

}  // namespace

std::optional<Decimal> Decimal::parse(std::string_view text) noexcept {
  const char* p = text.data();
  const char* const end = p + text.size();
  bool negative = false;
  if (p != end && *p == '-') {
    negative = true;
    ++p;
  }
  if (p == end) return std::nullopt;

  // Most JSON numbers are short integers: up to 19 digits always fit in 64 bits.
  if (end - p <= 19) {
    std::uint64_t v = 0;
    const char* q = p;
    while (q != end && isDigit(*q)) v = v * 10 + static_cast<std::uint64_t>(*q++ - '0');
    if (q == end) {
      if (*p == '0' && end - p > 1) return std::nullopt;
      Decimal d;
      if (v != 0) {
        while (v % 10 == 0) {
          v /= 10;
          ++d.exponent_;
        }
        d.lo_ = v;
        d.negative_ = negative;
      }
      return d;
    }
  }

  // Digits are collected without leading zeros; zeros after a nonzero digit are only counted and
  // multiplied in when another nonzero digit follows, so trailing zeros never cost precision.
  uint128 mantissa = 0;
  std::int64_t digits = 0;
  std::int64_t pendingZeros = 0;
  const auto take = [&](char c) noexcept {
    if (c == '0') {
      if (digits != 0) ++pendingZeros;
      return true;
    }
    const std::int64_t total = digits + pendingZeros + 1;
    if (total > maxDigits) return false;
    mantissa = mantissa * kPow10[static_cast<std::size_t>(pendingZeros + 1)] +
               static_cast<unsigned>(c - '0');
    digits = total;
    pendingZeros = 0;
    return true;
  };

  if (*p == '0') {
    ++p;
  } else if (isDigit(*p)) {
    for (; p != end && isDigit(*p); ++p) {
      if (!take(*p)) return std::nullopt;
    }
  } else {
    return std::nullopt;
  }

  std::int64_t fractionDigits = 0;
  if (p != end && *p == '.') {
    const char* const start = ++p;
    for (; p != end && isDigit(*p); ++p) {
      if (!take(*p)) return std::nullopt;
    }
    if (p == start) return std::nullopt;
    fractionDigits = p - start;
  }

  std::int64_t exponent = 0;
  if (p != end && (*p == 'e' || *p == 'E')) {
    ++p;
    bool negativeExponent = false;
    if (p != end && (*p == '+' || *p == '-')) negativeExponent = *p++ == '-';
    if (p == end || !isDigit(*p)) return std::nullopt;
    for (; p != end && isDigit(*p); ++p) {
      if (exponent < kExponentCap) exponent = exponent * 10 + (*p - '0');
    }
    if (negativeExponent) exponent = -exponent;
  }
  if (p != end) return std::nullopt;

  if (digits == 0) return Decimal{};
  exponent += pendingZeros - fractionDigits;
  if (exponent > maxExponent) {
    // Too large for the exponent alone: the excess goes back into the mantissa as zeros while
    // they fit (1e128 is 10 x 10^127). That form is as unique as the normalised one.
    const std::int64_t excess = exponent - maxExponent;
    if (digits + excess > maxDigits) return std::nullopt;
    mantissa *= kPow10[static_cast<std::size_t>(excess)];
    exponent = maxExponent;
  }
  if (exponent < minExponent) return std::nullopt;

  Decimal d;
  d.hi_ = static_cast<std::uint64_t>(mantissa >> 64);
  d.lo_ = static_cast<std::uint64_t>(mantissa);
  d.exponent_ = static_cast<std::int16_t>(exponent);
  d.negative_ = negative;
  return d;
}

std::optional<Decimal> Decimal::fromDouble(double value) noexcept {
  return fromShortestText(value);
}

std::optional<Decimal> Decimal::fromFloat(float value) noexcept {
  return fromShortestText(value);
}

std::string Decimal::toString() const {
  char buffer[maxTextLength];
  return std::string(buffer, write(buffer));
}

std::size_t Decimal::write(char* out) const noexcept {
  char* p = out;
  if (negative_) *p++ = '-';
  // Plain integers (zero included) need no layout.
  if (hi_ == 0 && exponent_ == 0)
    return static_cast<std::size_t>(std::to_chars(p, p + 20, lo_).ptr - out);

  char digits[maxDigits];
  const std::size_t count = writeDigits(digits, hi_, lo_);
  if (exponent_ >= 0) {
    std::memcpy(p, digits, count);
    p += count;
    std::memset(p, '0', static_cast<std::size_t>(exponent_));
    p += exponent_;
  } else {
    const auto fraction = static_cast<std::size_t>(-exponent_);
    if (count > fraction) {
      const std::size_t whole = count - fraction;
      std::memcpy(p, digits, whole);
      p += whole;
      *p++ = '.';
      std::memcpy(p, digits + whole, fraction);
      p += fraction;
    } else {
      *p++ = '0';
      *p++ = '.';
      std::memset(p, '0', fraction - count);
      p += fraction - count;
      std::memcpy(p, digits, count);
      p += count;
    }
  }
  return static_cast<std::size_t>(p - out);
}

std::int64_t Decimal::int64Value() const noexcept {
  const std::uint64_t magnitude = integerMagnitude(combine(hi_, lo_), exponent_);
  constexpr auto limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (negative_) {
    if (magnitude > limit) return std::numeric_limits<std::int64_t>::min();
    return -static_cast<std::int64_t>(magnitude);
  }
  return magnitude > limit ? std::numeric_limits<std::int64_t>::max()
                           : static_cast<std::int64_t>(magnitude);
}

std::uint64_t Decimal::uint64Value() const noexcept {
  if (negative_) return 0;
  return integerMagnitude(combine(hi_, lo_), exponent_);
}

double Decimal::doubleValue() const noexcept {
  char buffer[maxTextLength];
  const std::size_t length = write(buffer);
  return readFloating<double>(buffer, length, negative_,
                              digitCount(combine(hi_, lo_)) - 1 + exponent_);
}

float Decimal::floatValue() const noexcept {
  char buffer[maxTextLength];
  const std::size_t length = write(buffer);
  return readFloating<float>(buffer, length, negative_,
                             digitCount(combine(hi_, lo_)) - 1 + exponent_);
}

std::strong_ordering operator<=>(const Decimal& a, const Decimal& b) noexcept {
  const int signA = a.isZero() ? 0 : (a.negative_ ? -1 : 1);
  const int signB = b.isZero() ? 0 : (b.negative_ ? -1 : 1);
  if (signA != signB || signA == 0) return signA <=> signB;

  // Compare magnitudes: first by the position of the leading digit, then digit by digit after
  // scaling the shorter mantissa up to the other's length (still at most 38 digits).
  uint128 ma = combine(a.hi_, a.lo_);
  uint128 mb = combine(b.hi_, b.lo_);
  const int digitsA = digitCount(ma);
  const int digitsB = digitCount(mb);
  std::strong_ordering magnitude = (digitsA + a.exponent_) <=> (digitsB + b.exponent_);
  if (magnitude == 0) {
    if (digitsA < digitsB) {
      ma *= kPow10[static_cast<std::size_t>(digitsB - digitsA)];
    } else {
      mb *= kPow10[static_cast<std::size_t>(digitsA - digitsB)];
    }
    magnitude = ma <=> mb;
  }
  return signA > 0 ? magnitude : 0 <=> magnitude;
}

}  // namespace pelora
