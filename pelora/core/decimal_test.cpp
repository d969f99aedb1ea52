#include "pelora/core/decimal.hpp"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
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

std::string reprint(std::string_view text) {
  return parsed(text).toString();
}

// --- parsing and printing ---

TEST(Decimal, CanonicalTextRoundTrips) {
  for (const std::string& text : {
           std::string("0"),
           std::string("1"),
           std::string("-1"),
           std::string("7"),
           std::string("1500"),
           std::string("0.001"),
           std::string("-0.001"),
           std::string("123.456"),
           std::string("-0.00012"),
           std::string("0.5"),
           std::string("18446744073709551615"),  // largest 64-bit mantissa
           std::string("18446744073709551616"),  // smallest needing the high word
           std::string("-9223372036854775808"),
           std::string("12345678901234567890.123456789"),
           std::string("0.00012345678901234567890123456789012345678"),
           std::string("1234567890123456789012345678901234567800000"),
       }) {
    EXPECT_EQ(reprint(text), text);
  }
}

TEST(Decimal, ParseDropsInsignificantZerosAndExponents) {
  EXPECT_EQ(reprint("0.000120"), "0.00012");
  EXPECT_EQ(parsed("0.000120").exponent(), -5);
  EXPECT_EQ(reprint("100.00"), "100");
  EXPECT_EQ(reprint("1.5e3"), "1500");
  EXPECT_EQ(reprint("12e-5"), "0.00012");
  EXPECT_EQ(reprint("1E2"), "100");
  EXPECT_EQ(reprint("1e+2"), "100");
  EXPECT_EQ(reprint("1E+0002"), "100");
  EXPECT_EQ(reprint("-2.50e-1"), "-0.25");
  EXPECT_EQ(reprint("0.1e1"), "1");
  EXPECT_EQ(reprint("123.456e2"), "12345.6");
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

TEST(Decimal, EqualValuesCompareEqualWhateverTheirText) {
  EXPECT_EQ(parsed("1.10"), parsed("1.1"));
  EXPECT_EQ(parsed("100"), parsed("1e2"));
  EXPECT_EQ(parsed("100"), Decimal(100));
  EXPECT_EQ(parsed("100").exponent(), 2);
  EXPECT_EQ(parsed("0.5e1"), parsed("5"));
  EXPECT_EQ(parsed("-12.300"), parsed("-123e-1"));
  EXPECT_NE(parsed("1.1"), parsed("-1.1"));
  EXPECT_NE(parsed("1.1"), parsed("1.01"));
}

TEST(Decimal, AcceptsUpTo38SignificantDigits) {
  EXPECT_EQ(reprint(kNines38), kNines38);
  EXPECT_EQ(reprint("-" + kNines38), "-" + kNines38);
  EXPECT_EQ(reprint("0.00" + kNines38), "0.00" + kNines38);
  EXPECT_EQ(reprint("9." + kNines38.substr(1)), "9." + kNines38.substr(1));
  // Trailing and leading zeros are not significant.
  EXPECT_EQ(reprint(kNines38 + "0"), kNines38 + "0");
  EXPECT_EQ(reprint("0.000" + kNines38 + "000"), "0.000" + kNines38);
}

TEST(Decimal, RejectsMoreThan38SignificantDigits) {
  EXPECT_FALSE(Decimal::parse(kNines38 + "9"));
  EXPECT_FALSE(Decimal::parse("-" + kNines38 + "9"));
  EXPECT_FALSE(Decimal::parse("9." + kNines38));
  EXPECT_FALSE(Decimal::parse("0.0" + kNines38 + "1"));
  // Zeros between significant digits count.
  EXPECT_FALSE(Decimal::parse("1" + std::string(37, '0') + "1"));
  EXPECT_TRUE(Decimal::parse("1" + std::string(36, '0') + "1"));
  EXPECT_FALSE(Decimal::parse("1" + std::string(40, '0') + ".5"));
}

TEST(Decimal, ExponentBounds) {
  const auto top = parsed("1e127");
  EXPECT_EQ(top.toString(), "1" + std::string(127, '0'));
  EXPECT_FALSE(Decimal::parse("1e128"));
  EXPECT_FALSE(Decimal::parse("10e127"));
  EXPECT_EQ(parsed("0.1e128"), top);
  EXPECT_EQ(parsed("10e126"), top);

  const auto bottom = parsed("1e-128");
  EXPECT_EQ(bottom.toString(), "0." + std::string(127, '0') + "1");
  EXPECT_FALSE(Decimal::parse("1e-129"));
  EXPECT_FALSE(Decimal::parse("0.1e-128"));
  EXPECT_EQ(parsed("10e-129"), bottom);

  EXPECT_FALSE(Decimal::parse("1e99999999999999999999"));
  EXPECT_FALSE(Decimal::parse("1e-99999999999999999999"));
  EXPECT_FALSE(Decimal::parse("1e9223372036854775808"));
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

TEST(Decimal, RejectsNonJsonSyntax) {
  for (const char* text :
       {"",     "-",     "+1",    "+0",    ".5",  "-.5",   "1.",  "1.e5", "01",       "-01",
        "00",   "00.1",  "1e",    "1e+",   "1e-", "1E",    "--1", "-+1",  " 1",       "1 ",
        "\t1",  "1\n",   "0x10",  "0X1",   "nan", "NaN",   "inf", "-inf", "Infinity", "1..5",
        "1.5.", "1.2.3", "1e5.5", "1e1e1", "1,0", "1_000", "1f",  "e5",   "-e5",      "١"}) {
    EXPECT_FALSE(Decimal::parse(text)) << '"' << text << '"';
  }
  EXPECT_FALSE(Decimal::parse(std::string_view("1\0", 2)));
  // Syntax errors after a long valid prefix must still be caught.
  EXPECT_FALSE(Decimal::parse("12345678901234567890x"));
  EXPECT_FALSE(Decimal::parse("1234567890123456789012.5e"));
}

// --- conversions ---

TEST(Decimal, Int64TruncatesTowardZero) {
  EXPECT_EQ(parsed("3.9").int64Value(), 3);
  EXPECT_EQ(parsed("-3.9").int64Value(), -3);
  EXPECT_EQ(parsed("1e-5").int64Value(), 0);
  EXPECT_EQ(parsed("-1e-5").int64Value(), 0);
  EXPECT_EQ(parsed("1e-128").int64Value(), 0);
  EXPECT_EQ(parsed("12.5e1").int64Value(), 125);
  EXPECT_EQ(parsed("1e18").int64Value(), 1'000'000'000'000'000'000);
  EXPECT_EQ(parsed("0").int64Value(), 0);
}

TEST(Decimal, Int64Saturates) {
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(parsed("9223372036854775807").int64Value(), max);
  EXPECT_EQ(parsed("9223372036854775807.9").int64Value(), max);
  EXPECT_EQ(parsed("9223372036854775808").int64Value(), max);
  EXPECT_EQ(parsed("-9223372036854775808").int64Value(), min);
  EXPECT_EQ(parsed("-9223372036854775808.9").int64Value(), min);
  EXPECT_EQ(parsed("-9223372036854775809").int64Value(), min);
  EXPECT_EQ(parsed("1e19").int64Value(), max);
  EXPECT_EQ(parsed("1e30").int64Value(), max);
  EXPECT_EQ(parsed("-1e30").int64Value(), min);
  EXPECT_EQ(parsed(kNines38 + "e127").int64Value(), max);
  EXPECT_EQ(parsed("-" + kNines38 + "e127").int64Value(), min);
}

TEST(Decimal, Uint64TruncatesAndSaturates) {
  constexpr auto max = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(parsed("2.7").uint64Value(), 2u);
  EXPECT_EQ(parsed("1844674407370955161.59").uint64Value(), 1844674407370955161u);
  EXPECT_EQ(parsed("18446744073709551615").uint64Value(), max);
  EXPECT_EQ(parsed("18446744073709551616").uint64Value(), max);
  EXPECT_EQ(parsed("1e19").uint64Value(), 10'000'000'000'000'000'000u);
  EXPECT_EQ(parsed("1e20").uint64Value(), max);
  EXPECT_EQ(parsed(kNines38).uint64Value(), max);
  EXPECT_EQ(parsed("-1").uint64Value(), 0u);
  EXPECT_EQ(parsed("-0.5").uint64Value(), 0u);
  EXPECT_EQ(parsed("-1e30").uint64Value(), 0u);
}

TEST(Decimal, DoubleValueIsCorrectlyRounded) {
  EXPECT_EQ(parsed("0.1").doubleValue(), 0.1);
  EXPECT_EQ(parsed("-2.5e-3").doubleValue(), -0.0025);
  EXPECT_EQ(parsed("1e127").doubleValue(), 1e127);
  EXPECT_EQ(parsed("-1e-128").doubleValue(), -1e-128);
  EXPECT_EQ(parsed("12345678901234567890123456789012345678").doubleValue(),
            12345678901234567890123456789012345678.0);
  EXPECT_EQ(parsed("0").doubleValue(), 0.0);
}

TEST(Decimal, FloatValueRoundsOnceFromTheDecimal) {
  EXPECT_EQ(parsed("0.1").floatValue(), 0.1f);
  EXPECT_EQ(parsed("-1.5").floatValue(), -1.5f);
  EXPECT_EQ(parsed("3.4028235e38").floatValue(), std::numeric_limits<float>::max());
  EXPECT_EQ(parsed("3.4028235677e38").floatValue(), std::numeric_limits<float>::max());
  EXPECT_EQ(parsed("1e-45").floatValue(), std::numeric_limits<float>::denorm_min());
  EXPECT_EQ(parsed("-7.1e-46").floatValue(), -std::numeric_limits<float>::denorm_min());
  // 1 + 2^-24 + 10^-29: rounding to double first would land exactly on the halfway point between
  // 1 and the next float and then tie to 1.
  EXPECT_EQ(parsed("1.00000005960464477539062500001").floatValue(), std::nextafter(1.0f, 2.0f));
}

TEST(Decimal, FloatValueOutsideFloatRange) {
  EXPECT_EQ(parsed("1e100").floatValue(), std::numeric_limits<float>::infinity());
  EXPECT_EQ(parsed("-1e100").floatValue(), -std::numeric_limits<float>::infinity());
  EXPECT_EQ(parsed("1e127").floatValue(), std::numeric_limits<float>::infinity());
  EXPECT_EQ(parsed("3.4028236e38").floatValue(), std::numeric_limits<float>::infinity());
  EXPECT_EQ(parsed("7e-46").floatValue(), 0.0f);
  const float tiny = parsed("1e-100").floatValue();
  EXPECT_EQ(tiny, 0.0f);
  EXPECT_FALSE(std::signbit(tiny));
  const float negativeTiny = parsed("-1e-100").floatValue();
  EXPECT_EQ(negativeTiny, 0.0f);
  EXPECT_TRUE(std::signbit(negativeTiny));
}

// --- ordering ---

TEST(Decimal, OrderIsNumeric) {
  const std::vector<Decimal> ascending = {
      parsed("-" + kNines38 + "e127"),
      parsed("-2"),
      parsed("-1.5"),
      parsed("-1e-127"),
      parsed("-1e-128"),
      Decimal{},
      parsed("1e-128"),
      parsed("1e-5"),
      parsed("0.99999"),
      parsed("1"),
      parsed("1.0000000001"),
      parsed("9." + kNines38.substr(1)),
      parsed("10"),
      parsed("18446744073709551616"),
      parsed("18446744073709551617"),
      parsed("1e127"),
      parsed(kNines38 + "e127"),
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    EXPECT_EQ(ascending[i] <=> ascending[i], std::strong_ordering::equal) << i;
    for (std::size_t j = i + 1; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] <=> ascending[j], std::strong_ordering::less) << i << " vs " << j;
      EXPECT_EQ(ascending[j] <=> ascending[i], std::strong_ordering::greater) << j << " vs " << i;
    }
  }
}

TEST(Decimal, OrderAgreesWithEquality) {
  EXPECT_EQ(parsed("1.5") <=> parsed("1.50"), std::strong_ordering::equal);
  EXPECT_EQ(parsed("-0") <=> parsed("0"), std::strong_ordering::equal);
  EXPECT_LT(parsed("12"), parsed("12.000000000000000000000000000000000001"));
  EXPECT_GT(parsed("-12"), parsed("-12.000000000000000000000000000000000001"));
}

// --- from binary floating point ---

TEST(Decimal, FromDoubleGivesShortestText) {
  EXPECT_EQ(Decimal::fromDouble(0.1)->toString(), "0.1");
  EXPECT_EQ(Decimal::fromDouble(123456789.125)->toString(), "123456789.125");
  EXPECT_EQ(Decimal::fromDouble(-1.5e-7)->toString(), "-0.00000015");
  EXPECT_EQ(Decimal::fromDouble(1e22)->toString(), "1" + std::string(22, '0'));
  // Large integral doubles: the shortest digits, not every digit of the binary value.
  EXPECT_EQ(Decimal::fromDouble(1.1669698946692606e20)->toString(), "116696989466926060000");
  EXPECT_EQ(Decimal::fromDouble(-5.773373693456746e18)->toString(), "-5773373693456746000");
  EXPECT_EQ(Decimal::fromDouble(9007199254740993.0)->toString(), "9007199254740992");
  EXPECT_EQ(Decimal::fromDouble(1e-128)->toString(), "0." + std::string(127, '0') + "1");
  const auto negativeZero = Decimal::fromDouble(-0.0);
  ASSERT_TRUE(negativeZero);
  EXPECT_EQ(negativeZero->toString(), "0");
  EXPECT_FALSE(negativeZero->isNegative());
  for (const double v : {0.1, -0.3, 1.0 / 3.0, 2.5e-100, 6.02214076e23, -1e127}) {
    EXPECT_EQ(Decimal::fromDouble(v)->doubleValue(), v) << v;
  }
}

TEST(Decimal, FromDoubleRejectsWhatItCannotHold) {
  EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(Decimal::fromDouble(-std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(Decimal::fromDouble(1e300));
  EXPECT_FALSE(Decimal::fromDouble(1e128));
  EXPECT_FALSE(Decimal::fromDouble(std::numeric_limits<double>::max()));
  EXPECT_FALSE(Decimal::fromDouble(5e-324));
  EXPECT_FALSE(Decimal::fromDouble(1e-129));
}

TEST(Decimal, FromFloatUsesFloatPrecision) {
  EXPECT_EQ(Decimal::fromFloat(0.1f)->toString(), "0.1");
  EXPECT_EQ(Decimal::fromFloat(std::numeric_limits<float>::max())->toString(),
            "34028235" + std::string(31, '0'));
  EXPECT_EQ(Decimal::fromFloat(-0.0f)->toString(), "0");
  EXPECT_EQ(Decimal::fromFloat(1.2345679e11f)->toString(), "123456790000");
  EXPECT_EQ(Decimal::fromFloat(std::numeric_limits<float>::denorm_min())->toString(),
            "0." + std::string(44, '0') + "1");
  EXPECT_EQ(Decimal::fromFloat(0.1f)->floatValue(), 0.1f);
  EXPECT_FALSE(Decimal::fromFloat(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_FALSE(Decimal::fromFloat(std::numeric_limits<float>::infinity()));
}

// --- integers ---

TEST(Decimal, IntegerConstructorIsExact) {
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::min()).toString(), "-9223372036854775808");
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::max()).toString(), "9223372036854775807");
  EXPECT_EQ(Decimal(std::numeric_limits<std::uint64_t>::max()).toString(), "18446744073709551615");
  EXPECT_EQ(Decimal(1000).toString(), "1000");
  EXPECT_EQ(Decimal(1000).exponent(), 3);
  EXPECT_EQ(Decimal(1000), parsed("1e3"));
  EXPECT_EQ(Decimal(-250), parsed("-2.5e2"));
  EXPECT_EQ(Decimal(0), Decimal{});
  EXPECT_EQ(Decimal(std::int8_t{-128}).toString(), "-128");
  EXPECT_EQ(Decimal(std::uint16_t{65535}).toString(), "65535");
  EXPECT_EQ(Decimal(std::numeric_limits<std::int64_t>::min()).int64Value(),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(Decimal(std::numeric_limits<std::uint64_t>::max()).uint64Value(),
            std::numeric_limits<std::uint64_t>::max());
}

}  // namespace
}  // namespace pelora
