#include "pelora/core/decimal.hpp"

#include <cmath>
#include <cstdint>
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
  for (const std::string text :
       {"0", "1", "-1", "7", "1500", "0.001", "-0.001", "123.456", "-0.00012", "0.5",
        "18446744073709551615",  // largest 64-bit mantissa
        "18446744073709551616",  // smallest needing the high word
        "-9223372036854775808", "12345678901234567890.123456789",
        "0.00012345678901234567890123456789012345678",
        "1234567890123456789012345678901234567800000"}) {
    EXPECT_EQ(parsed(text).toString(), text);
  }
  for (const std::string& text :
       {kNines38, "-" + kNines38, "0.00" + kNines38, "9." + kNines38.substr(1), kNines38 + "0"}) {
    EXPECT_EQ(parsed(text).toString(), text);
  }
  // Insignificant zeros and exponents are gone.
  using Case = std::pair<std::string, std::string>;
  for (const auto& [text, printed] :
       {Case{"0.000120", "0.00012"}, Case{"100.00", "100"}, Case{"1.5e3", "1500"},
        Case{"12e-5", "0.00012"}, Case{"1E2", "100"}, Case{"1e+2", "100"}, Case{"1E+0002", "100"},
        Case{"-2.50e-1", "-0.25"}, Case{"0.1e1", "1"}, Case{"123.456e2", "12345.6"},
        Case{"0.000" + kNines38 + "000", "0.000" + kNines38}}) {
    EXPECT_EQ(parsed(text).toString(), printed);
  }
  EXPECT_EQ(parsed("0.000120").exponent(), -5);
  // 46 digits, but only one significant.
  const auto big = parsed("1000000000000000000000000000000000000000000000");
  EXPECT_EQ(big.exponent(), 45);
  EXPECT_EQ(big, parsed("1e45"));
}

TEST(Decimal, ZeroIsCanonical) {
  for (const char* text : {"0", "-0", "0.0", "-0.0", "0e999", "-0.0e-999", "0.000e5",
                           "0e99999999999999999999", "-0E-99999999999999999999"}) {
    const auto d = parsed(text);
    EXPECT_TRUE(d.isZero()) << text;
    EXPECT_FALSE(d.isNegative()) << text;
    EXPECT_EQ(d.exponent(), 0) << text;
    EXPECT_EQ(d, Decimal{}) << text;
    EXPECT_EQ(d.toString(), "0") << text;
  }
}

TEST(Decimal, RejectsTooManyDigitsOutOfRangeAndNonJsonSyntax) {
  const std::vector<std::string> rejected = {
      // More than 38 significant digits; zeros between significant digits count.
      kNines38 + "9", "-" + kNines38 + "9", "9." + kNines38, "0.0" + kNines38 + "1",
      "1" + std::string(37, '0') + "1", "1" + std::string(40, '0') + ".5",
      // Exponents past 127 or -128 once normalised.
      "1e128", "10e127", "1e-129", "0.1e-128", "1e99999999999999999999", "1e-99999999999999999999",
      "1e9223372036854775808",
      // Not JSON number syntax.
      "", "-", "+1", "+0", ".5", "-.5", "1.", "1.e5", "01", "-01", "00", "00.1", "1e", "1e+", "1e-",
      "1E", "--1", "-+1", " 1", "1 ", "\t1", "1\n", "0x10", "0X1", "nan", "NaN", "inf", "-inf",
      "Infinity", "1..5", "1.5.", "1.2.3", "1e5.5", "1e1e1", "1,0", "1_000", "1f", "e5", "-e5", "١",
      std::string("1\0", 2),
      // Syntax errors after a long valid prefix must still be caught.
      "12345678901234567890x", "1234567890123456789012.5e"};
  for (const auto& text : rejected) EXPECT_FALSE(Decimal::parse(text)) << '"' << text << '"';
  EXPECT_TRUE(Decimal::parse("1" + std::string(36, '0') + "1"));
}

TEST(Decimal, ExponentBounds) {
  const auto top = parsed("1e127");
  EXPECT_EQ(top.toString(), "1" + std::string(127, '0'));
  EXPECT_EQ(parsed("0.1e128"), top);
  EXPECT_EQ(parsed("10e126"), top);
  const auto bottom = parsed("1e-128");
  EXPECT_EQ(bottom.toString(), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(parsed("10e-129"), bottom);
  EXPECT_EQ(parsed("1e00000000000000000000000000000002"), Decimal(100));
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
  EXPECT_EQ(widest.toString(), kNines38 + std::string(127, '0'));
  EXPECT_EQ(deepest.toString(), "-0." + std::string(90, '0') + kNines38);
  EXPECT_EQ(smallest.toString().size(), 131u);
}

// --- conversions ---

TEST(Decimal, IntegerConversionsTruncateTowardZeroAndSaturate) {
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  using Signed = std::pair<std::string, std::int64_t>;
  for (const auto& [text, value] :
       {Signed{"3.9", 3}, Signed{"-3.9", -3}, Signed{"1e-5", 0}, Signed{"-1e-5", 0},
        Signed{"1e-128", 0}, Signed{"12.5e1", 125}, Signed{"0", 0},
        Signed{"1e18", 1'000'000'000'000'000'000}, Signed{"9223372036854775807", max},
        Signed{"9223372036854775807.9", max}, Signed{"9223372036854775808", max},
        Signed{"-9223372036854775808", min}, Signed{"-9223372036854775808.9", min},
        Signed{"-9223372036854775809", min}, Signed{"1e19", max}, Signed{"1e30", max},
        Signed{"-1e30", min}, Signed{kNines38 + "e127", max},
        Signed{"-" + kNines38 + "e127", min}}) {
    EXPECT_EQ(parsed(text).int64Value(), value) << text;
  }
  constexpr auto umax = std::numeric_limits<std::uint64_t>::max();
  using Unsigned = std::pair<std::string, std::uint64_t>;
  for (const auto& [text, value] :
       {Unsigned{"2.7", 2u}, Unsigned{"1844674407370955161.59", 1844674407370955161u},
        Unsigned{"18446744073709551615", umax}, Unsigned{"18446744073709551616", umax},
        Unsigned{"1e19", 10'000'000'000'000'000'000u}, Unsigned{"1e20", umax},
        Unsigned{kNines38, umax}, Unsigned{"-1", 0u}, Unsigned{"-0.5", 0u},
        Unsigned{"-1e30", 0u}}) {
    EXPECT_EQ(parsed(text).uint64Value(), value) << text;
  }
}

TEST(Decimal, FloatingConversionsRoundOnceFromTheDecimal) {
  using Double = std::pair<const char*, double>;
  for (const auto& [text, value] :
       {Double{"0.1", 0.1}, Double{"-2.5e-3", -0.0025}, Double{"1e127", 1e127},
        Double{"-1e-128", -1e-128}, Double{"0", 0.0},
        Double{"12345678901234567890123456789012345678",
               12345678901234567890123456789012345678.0}}) {
    EXPECT_EQ(parsed(text).doubleValue(), value) << text;
  }
  constexpr float inf = std::numeric_limits<float>::infinity();
  constexpr float tiny = std::numeric_limits<float>::denorm_min();
  constexpr float max = std::numeric_limits<float>::max();
  using Float = std::pair<const char*, float>;
  for (const auto& [text, value] :
       {Float{"0.1", 0.1f}, Float{"-1.5", -1.5f}, Float{"3.4028235e38", max},
        Float{"3.4028235677e38", max}, Float{"1e-45", tiny}, Float{"-7.1e-46", -tiny},
        // 1 + 2^-24 + 10^-29: rounding to double first would land exactly on the halfway point
        // between 1 and the next float and then tie to 1.
        Float{"1.00000005960464477539062500001", std::nextafter(1.0f, 2.0f)},
        // Outside float's range.
        Float{"1e100", inf}, Float{"-1e100", -inf}, Float{"1e127", inf}, Float{"3.4028236e38", inf},
        Float{"7e-46", 0.0f}}) {
    EXPECT_EQ(parsed(text).floatValue(), value) << text;
  }
  EXPECT_FALSE(std::signbit(parsed("1e-100").floatValue()));
  EXPECT_EQ(parsed("-1e-100").floatValue(), 0.0f);
  EXPECT_TRUE(std::signbit(parsed("-1e-100").floatValue()));
}

// --- ordering ---

TEST(Decimal, OrderIsNumericAndAgreesWithEquality) {
  std::vector<Decimal> ascending = {parsed("-" + kNines38 + "e127")};
  for (const char* text :
       {"-12.000000000000000000000000000000000001", "-12", "-2", "-1.5", "-1e-127", "-1e-128", "0",
        "1e-128", "1e-5", "0.99999", "1", "1.0000000001", "9.9999999999999999999999999999999999999",
        "10", "12", "12.000000000000000000000000000000000001", "18446744073709551616",
        "18446744073709551617", "1e127"}) {
    ascending.push_back(parsed(text));
  }
  ascending.push_back(parsed(kNines38 + "e127"));
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    EXPECT_EQ(ascending[i] <=> ascending[i], std::strong_ordering::equal) << i;
    for (std::size_t j = i + 1; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] <=> ascending[j], std::strong_ordering::less) << i << " vs " << j;
      EXPECT_EQ(ascending[j] <=> ascending[i], std::strong_ordering::greater) << j << " vs " << i;
    }
  }
  // Equal values, whatever their text.
  using Same = std::pair<const char*, const char*>;
  for (const auto& [a, b] : {Same{"1.10", "1.1"}, Same{"100", "1e2"}, Same{"0.5e1", "5"},
                             Same{"-12.300", "-123e-1"}, Same{"1.5", "1.50"}, Same{"-0", "0"}}) {
    EXPECT_EQ(parsed(a), parsed(b)) << a;
    EXPECT_EQ(parsed(a) <=> parsed(b), std::strong_ordering::equal) << a;
  }
  EXPECT_EQ(parsed("100").exponent(), 2);
}

// --- from binary floating point ---

TEST(Decimal, FromDoubleAndFloatGiveShortestText) {
  using Double = std::pair<double, std::string>;
  for (const auto& [value, text] :
       {Double{0.1, "0.1"}, Double{123456789.125, "123456789.125"}, Double{-1.5e-7, "-0.00000015"},
        Double{1e22, "1" + std::string(22, '0')}, Double{-0.0, "0"},
        // Large integral doubles: the shortest digits, not every digit of the binary value.
        Double{1.1669698946692606e20, "116696989466926060000"},
        Double{-5.773373693456746e18, "-5773373693456746000"},
        Double{9007199254740993.0, "9007199254740992"},
        Double{1e-128, "0." + std::string(127, '0') + "1"}}) {
    EXPECT_EQ(Decimal::fromDouble(value)->toString(), text);
  }
  EXPECT_FALSE(Decimal::fromDouble(-0.0)->isNegative());
  for (const double v : {0.1, -0.3, 1.0 / 3.0, 2.5e-100, 6.02214076e23, -1e127}) {
    EXPECT_EQ(Decimal::fromDouble(v)->doubleValue(), v) << v;
  }
  using Float = std::pair<float, std::string>;
  for (const auto& [value, text] :
       {Float{0.1f, "0.1"}, Float{-0.0f, "0"}, Float{1.2345679e11f, "123456790000"},
        Float{std::numeric_limits<float>::max(), "34028235" + std::string(31, '0')},
        Float{std::numeric_limits<float>::denorm_min(), "0." + std::string(44, '0') + "1"}}) {
    EXPECT_EQ(Decimal::fromFloat(value)->toString(), text);
  }
  EXPECT_EQ(Decimal::fromFloat(0.1f)->floatValue(), 0.1f);
}

TEST(Decimal, FromDoubleAndFloatRejectWhatTheyCannotHold) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  for (const double v : {std::numeric_limits<double>::quiet_NaN(), inf, -inf, 1e300, 1e128,
                         std::numeric_limits<double>::max(), 5e-324, 1e-129}) {
    EXPECT_FALSE(Decimal::fromDouble(v)) << v;
  }
  EXPECT_FALSE(Decimal::fromFloat(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_FALSE(Decimal::fromFloat(std::numeric_limits<float>::infinity()));
}

TEST(Decimal, IntegerConstructorIsExact) {
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  constexpr auto umax = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(Decimal(min).toString(), "-9223372036854775808");
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::max()).toString(), "9223372036854775807");
  EXPECT_EQ(Decimal(umax).toString(), "18446744073709551615");
  EXPECT_EQ(Decimal(std::int8_t{-128}).toString(), "-128");
  EXPECT_EQ(Decimal(std::uint16_t{65535}).toString(), "65535");
  EXPECT_EQ(Decimal(1000).exponent(), 3);
  EXPECT_EQ(Decimal(1000), parsed("1e3"));
  EXPECT_EQ(Decimal(-250), parsed("-2.5e2"));
  EXPECT_EQ(Decimal(0), Decimal{});
  EXPECT_EQ(Decimal(min).int64Value(), min);
  EXPECT_EQ(Decimal(umax).uint64Value(), umax);
}

}  // namespace
}  // namespace pelora
