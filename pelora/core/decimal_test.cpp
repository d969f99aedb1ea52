#include "pelora/core/decimal.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace pelora {
namespace {

const std::string kNines38(38, '9');

Decimal parsed(std::string_view text) {
  const auto d = Decimal::parse(text);
  EXPECT_TRUE(d.has_value()) << "rejected: " << text;
  return d.value_or(Decimal{});
}

// --- parsing and printing ---

TEST(Decimal, PrintsCanonicalText) {
  for (const std::string& text :
       {std::string("0"), std::string("-0.001"), std::string("123.456"),
        std::string("18446744073709551615"),  // largest 64-bit mantissa
        std::string("18446744073709551616"),  // smallest needing the high word
        std::string("-9223372036854775808"), std::string("12345678901234567890.123456789"),
        "-" + kNines38, "0.00" + kNines38, kNines38 + "0"}) {
    EXPECT_EQ(parsed(text).toString(), text);
  }
  // Insignificant zeros and exponents are gone.
  using Case = std::pair<std::string, std::string>;
  for (const auto& [text, printed] :
       {Case{"0.000120", "0.00012"}, Case{"100.00", "100"}, Case{"12e-5", "0.00012"},
        Case{"1E+0002", "100"}, Case{"-2.50e-1", "-0.25"}, Case{"123.456e2", "12345.6"}}) {
    EXPECT_EQ(parsed(text).toString(), printed);
  }
  EXPECT_EQ(parsed("0.000120").exponent(), -5);
  // 46 digits, but only one significant.
  EXPECT_EQ(parsed("1000000000000000000000000000000000000000000000"), parsed("1e45"));
}

TEST(Decimal, ZeroIsCanonical) {
  for (const char* text : {"-0", "-0.0e-999", "0.000e5", "-0E-99999999999999999999"}) {
    const auto d = parsed(text);
    EXPECT_FALSE(d.isNegative()) << text;
    EXPECT_EQ(d.exponent(), 0) << text;
    EXPECT_EQ(d, Decimal{}) << text;
    EXPECT_EQ(d.toString(), "0") << text;
  }
}

TEST(Decimal, RejectsTooManyDigitsOutOfRangeAndNonJsonSyntax) {
  const std::vector<std::string> rejected = {
      // More than 38 significant digits; zeros between significant digits count.
      kNines38 + "9", "0.0" + kNines38 + "1", "1" + std::string(37, '0') + "1",
      // Values no 38-digit mantissa with an exponent in -128...127 holds.
      "1e165", kNines38 + "e128", "0.1e-128", "1e-129", "1e9223372036854775808",
      // Not JSON number syntax.
      "", "-", "+1", ".5", "1.", "01", "1e", "1e+", " 1", "1 ", "0x10", "nan", "inf", "1.2.3",
      "1e5.5", "1,0", std::string("1\0", 2),
      // Syntax errors after a long valid prefix must still be caught.
      "1234567890123456789012.5e"};
  for (const auto& text : rejected) EXPECT_FALSE(Decimal::parse(text)) << '"' << text << '"';
  EXPECT_TRUE(Decimal::parse("1" + std::string(36, '0') + "1"));
}

TEST(Decimal, ExponentBounds) {
  const auto top = parsed("1e127");
  EXPECT_EQ(top.toString(), "1" + std::string(127, '0'));
  EXPECT_EQ(parsed("0.1e128"), top);
  const auto bottom = parsed("1e-128");
  EXPECT_EQ(bottom.toString(), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(parsed("10e-129"), bottom);
  EXPECT_EQ(parsed("1e00000000000000000000000000000002"), Decimal(100));

  // Past 10^127 the trailing zeros move back into the mantissa, up to 38 digits of it.
  const std::string oneAnd128Zeros = "1" + std::string(128, '0');
  for (const char* text : {"1e128", "10e127", "100E+126", "0.01e130"}) {
    EXPECT_EQ(parsed(text).toString(), oneAnd128Zeros) << text;
    EXPECT_EQ(parsed(text), parsed(oneAnd128Zeros)) << text;
  }
  EXPECT_EQ(parsed("-4.5e150").toString(), "-45" + std::string(149, '0'));
  EXPECT_EQ(parsed("1e164").toString(), "1" + std::string(164, '0'));  // 38 digits at 10^127
  EXPECT_GT(parsed("1e128"), parsed(kNines38 + "e90"));
  EXPECT_LT(parsed("-1e150"), parsed("-9e149"));
  for (const char* text : {"1e128", "-4.5e150", "1e164", "123e140"}) {
    EXPECT_EQ(parsed(parsed(text).toString()), parsed(text)) << text;
    EXPECT_EQ(parsed(text).doubleValue(), std::strtod(text, nullptr)) << text;
  }
}

TEST(Decimal, LongestTextsFitMaxTextLength) {
  const auto widest = parsed(kNines38 + "e127");
  const auto deepest = parsed("-" + kNines38 + "e-128");
  const auto smallest = parsed("-1e-128");
  // Exactly sized heap buffers so that the sanitizer catches any overrun.
  for (const Decimal& d : {widest, deepest, smallest}) {
    std::vector<char> buffer(Decimal::maxTextLength);
    const std::size_t length = d.write(buffer.data());
    EXPECT_LE(length, Decimal::maxTextLength);
    EXPECT_EQ(std::string(buffer.data(), length), d.toString());
  }
  EXPECT_EQ(deepest.toString(), "-0." + std::string(90, '0') + kNines38);
}

// --- conversions ---

TEST(Decimal, IntegerConversionsTruncateTowardZeroAndSaturate) {
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  using Signed = std::pair<std::string, std::int64_t>;
  for (const auto& [text, value] :
       {Signed{"-3.9", -3}, Signed{"1e-128", 0}, Signed{"12.5e1", 125},
        Signed{"9223372036854775807.9", max}, Signed{"9223372036854775808", max},
        Signed{"-9223372036854775808", min}, Signed{"-9223372036854775809", min},
        Signed{"-1e30", min}}) {
    EXPECT_EQ(parsed(text).int64Value(), value) << text;
  }
  constexpr auto umax = std::numeric_limits<std::uint64_t>::max();
  using Unsigned = std::pair<std::string, std::uint64_t>;
  for (const auto& [text, value] :
       {Unsigned{"2.7", 2u}, Unsigned{"18446744073709551615", umax},
        Unsigned{"18446744073709551616", umax}, Unsigned{"1e19", 10'000'000'000'000'000'000u},
        Unsigned{"-0.5", 0u}, Unsigned{"-1e30", 0u}}) {
    EXPECT_EQ(parsed(text).uint64Value(), value) << text;
  }
  // And the constructor is exact at both ends.
  EXPECT_EQ(Decimal(min).toString(), "-9223372036854775808");
  EXPECT_EQ(Decimal(umax).toString(), "18446744073709551615");
}

TEST(Decimal, FloatingConversionsRoundOnceFromTheDecimal) {
  EXPECT_EQ(parsed("0.1").doubleValue(), 0.1);
  EXPECT_EQ(parsed("-1e-128").doubleValue(), -1e-128);
  constexpr float inf = std::numeric_limits<float>::infinity();
  constexpr float tiny = std::numeric_limits<float>::denorm_min();
  using Float = std::pair<const char*, float>;
  for (const auto& [text, value] :
       {Float{"0.1", 0.1f}, Float{"3.4028235677e38", std::numeric_limits<float>::max()},
        Float{"-7.1e-46", -tiny},
        // 1 + 2^-24 + 10^-29: rounding to double first would land exactly on the halfway point
        // between 1 and the next float and then tie to 1.
        Float{"1.00000005960464477539062500001", std::nextafter(1.0f, 2.0f)},
        // Outside float's range.
        Float{"-1e100", -inf}, Float{"3.4028236e38", inf}, Float{"7e-46", 0.0f}}) {
    EXPECT_EQ(parsed(text).floatValue(), value) << text;
  }
  EXPECT_TRUE(std::signbit(parsed("-1e-100").floatValue()));
}

// --- ordering ---

TEST(Decimal, OrderIsNumericAndAgreesWithEquality) {
  std::vector<Decimal> ascending = {parsed("-" + kNines38 + "e127")};
  for (const char* text : {"-12.000000000000000000000000000000000001", "-12", "-1.5", "-1e-128",
                           "0", "1e-128", "0.99999", "1", "9.9999999999999999999999999999999999999",
                           "10", "18446744073709551616", "18446744073709551617", "1e127"}) {
    ascending.push_back(parsed(text));
  }
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    EXPECT_EQ(ascending[i] <=> ascending[i], std::strong_ordering::equal) << i;
    for (std::size_t j = i + 1; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] <=> ascending[j], std::strong_ordering::less) << i << " vs " << j;
      EXPECT_EQ(ascending[j] <=> ascending[i], std::strong_ordering::greater) << j << " vs " << i;
    }
  }
  // Equal values, whatever their text.
  EXPECT_EQ(parsed("-12.300"), parsed("-123e-1"));
  EXPECT_EQ(parsed("0.5e1") <=> parsed("5"), std::strong_ordering::equal);
}

// --- from binary floating point ---

TEST(Decimal, FromDoubleAndFloatGiveShortestText) {
  using Double = std::pair<double, std::string>;
  for (const auto& [value, text] :
       {Double{0.1, "0.1"}, Double{-1.5e-7, "-0.00000015"}, Double{-0.0, "0"},
        // Large integral doubles: the shortest digits, not every digit of the binary value.
        Double{1.1669698946692606e20, "116696989466926060000"},
        Double{9007199254740993.0, "9007199254740992"}}) {
    EXPECT_EQ(Decimal::fromDouble(value)->toString(), text);
  }
  for (const double v : {-0.3, 1.0 / 3.0, 6.02214076e23}) {
    EXPECT_EQ(Decimal::fromDouble(v)->doubleValue(), v) << v;
  }
  EXPECT_EQ(Decimal::fromFloat(0.1f)->toString(), "0.1");
  EXPECT_EQ(Decimal::fromFloat(std::numeric_limits<float>::denorm_min())->toString(),
            "0." + std::string(44, '0') + "1");
}

TEST(Decimal, FromDoubleAndFloatRejectWhatTheyCannotHold) {
  for (const double v : {std::numeric_limits<double>::quiet_NaN(),
                         std::numeric_limits<double>::infinity(), 1e165, 5e-324}) {
    EXPECT_FALSE(Decimal::fromDouble(v)) << v;
  }
  EXPECT_EQ(Decimal::fromDouble(1e128)->toString(), "1" + std::string(128, '0'));
  EXPECT_FALSE(Decimal::fromFloat(std::numeric_limits<float>::infinity()));
}

}  // namespace
}  // namespace pelora
