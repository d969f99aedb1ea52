#include "pelora/core/json.hpp"

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "pelora/platform/logging.hpp"
#include "tests/support/small_stack.hpp"

namespace pelora {
namespace {

struct Opaque {};

Decimal dec(std::string_view text) {
  return Decimal::parse(text).value();
}

// The error `call` throws; nothing when it returns.
template <class Error, class Call>
std::optional<Error> thrown(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

TEST(JSONFromHostValues, BoolsAndNumbersStayApart) {
  // Equality compares the case, then the value.
  EXPECT_EQ(JSON::parse(R"({"a":1,"b":[true,null]})"), JSON::parse(R"({"b":[true,null],"a":1})"));
  EXPECT_NE(JSON(), JSON(false));
  EXPECT_NE(JSON("1"), JSON(1));
  EXPECT_EQ(JSON::fromAny(true), JSON(true));
  EXPECT_NE(JSON::fromAny(1), JSON(true));
  EXPECT_NE(JSON::fromAny(0), JSON(false));
  EXPECT_EQ(JSON::fromAny(0.1).decimalValue(), dec("0.1"));
  EXPECT_EQ(JSON::fromAny(static_cast<short>(-7)), JSON(-7));
}

TEST(JSONFromHostValues, UnconvertibleValuesNameTheirType) {
  auto error = thrown<JSONError>([] { JSON::fromAny(Opaque{}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), JSONError::Kind::nonJSONType);
  EXPECT_NE(error->type().find("Opaque"), std::string::npos) << error->type();
  // The first failing element aborts the whole conversion, at any depth.
  EXPECT_THROW(JSON(Dictionary{{"ok", 1}, {"bad", Array{1, std::chrono::seconds(3)}}}), JSONError);
  EXPECT_THROW(JSON::fromAny(std::nan("")), JSONError);
}

TEST(JSONConversions, ValuesConvertOnlyFromTheirOwnCase) {
  JSON n(dec("3.9"));
  EXPECT_EQ(n.intValue(), 3);
  EXPECT_DOUBLE_EQ(*n.doubleValue(), 3.9);
  EXPECT_FALSE(JSON(true).intValue());
  EXPECT_FALSE(JSON("3").intValue());
  EXPECT_FALSE(JSON(1).boolValue());
  EXPECT_FALSE(JSON(1).stringValue());

  JSON json = JSON::parse(R"({"a":[1,"x",null,false,{"b":2}]})");
  Dictionary dictionary = json.dictionaryValue().value();
  const auto& array = std::any_cast<const Array&>(dictionary.at("a"));
  ASSERT_EQ(array.size(), 5u);
  EXPECT_EQ(std::any_cast<Decimal>(array[0]), Decimal(1));
  EXPECT_NO_THROW((void)std::any_cast<Null>(array[2]));
  EXPECT_FALSE(json.arrayValue());
  // And they convert back to an equal value.
  EXPECT_EQ(JSON(dictionary), json);
}

TEST(JSONText, ParsesEveryCaseWithExactNumbers) {
  JSON json = JSON::parse(R"([1, "a", null, true, {"k": 2.5}])");
  ASSERT_EQ(json.kind(), JSON::Kind::array);
  EXPECT_EQ(json[2], JSON());
  EXPECT_EQ(json[4]->operator[]("k"), JSON(dec("2.5")));
  EXPECT_FALSE(json[5]);
  // Subscripts only reach their own case.
  EXPECT_FALSE(json["0"]);
  EXPECT_FALSE(JSON::parse(R"({"0":1})")[0]);

  const char* exact = "[12345678901234567890123456789.012345678,-0.000001,1E+3]";
  EXPECT_EQ(JSON::parse(exact).toString(),
            "[12345678901234567890123456789.012345678,-0.000001,1000]");

  JSON object = JSON::parse(R"({"a":[1,2.50,{"b":null}],"c":"x"})");
  std::string pretty = object.prettyPrint();
  EXPECT_NE(pretty.find('\n'), std::string::npos);
  EXPECT_EQ(JSON::parse(pretty), object);
}

TEST(JSONText, MalformedTextOutOfRangeNumbersAndDeepNestingAreRejected) {
  struct Case {
    std::string_view text;
    std::size_t offset;
  };
  // A NUL byte does not end the text: what follows it is read too.
  for (const Case& c :
       {Case{R"({"a" 1})", 5}, Case{"[1] x", 4}, Case{"\"\xC3\x28\"", 1},
        Case{std::string_view("[1] \0x", 6), 4}, Case{std::string_view("{}\0", 3), 2}}) {
    auto error = thrown<DecodingError>([&] { JSON::parse(c.text); });
    ASSERT_TRUE(error) << "accepted: " << c.text;
    EXPECT_EQ(error->kind(), DecodingError::Kind::dataCorrupted) << c.text;
    EXPECT_EQ(error->offset(), c.offset) << c.text << ": " << error->what();
    EXPECT_NE(std::string(error->what()).find("byte"), std::string::npos) << error->what();
  }
  EXPECT_THROW(JSON::parse("[1e400]"), DecodingError);
  // Surrogates: only a high one followed by a low one is a character.
  for (const char* lone : {R"("\ude00")", R"("a\udfffb")", R"({"\udc00":1})", R"("\ud800")",
                           R"("\ud800\u0041")", R"("\ude00\ud83d")"}) {
    EXPECT_THROW(JSON::parse(lone), DecodingError) << lone;
  }
  EXPECT_EQ(JSON::parse(R"("\ud83d\ude00")").stringValue(), "\xF0\x9F\x98\x80");
  auto nesting = thrown<DecodingError>([] { JSON::parse(std::string(100000, '[')); });
  ASSERT_TRUE(nesting);
  EXPECT_NE(std::string(nesting->what()).find("Nesting"), std::string::npos) << nesting->what();
}

// JSONText::parse writes, without building the value, what parsing and writing it gives: the same
// bytes for the same text (unsorted and repeated keys, escapes, every number form, whitespace), and
// the same error for text that parsing refuses.
TEST(JSONText, CanonicalTextIsTheTextOfTheParsedValue) {
  std::mt19937 random(20261125);
  auto pick = [&](std::initializer_list<std::string_view> options) {
    return std::string(options.begin()[random() % options.size()]);
  };
  const auto space = [&] { return pick({"", "", " ", "\n\t "}); };
  std::function<std::string(int)> value = [&](int depth) -> std::string {
    switch (depth > 3 ? random() % 4 : random() % 6) {
      case 0:
        return pick({"0", "-0", "1.50", "-12.000", "1e3", "1E-2", "0.000001", "2.5e+10",
                     "123456789012345678901234567890.5", "-9223372036854775809"});
      case 1:
        return pick({R"("")", R"("plain")", R"("tab\tnew\nline")", R"("quote\"back\\")",
                     R"("\u00e9t\u00E9")", R"("\ud83d\ude00")", R"("\u0001\u001f")",
                     "\"caf\xC3\xA9\"", R"("\/slash")"});
      case 2:
        return pick({"true", "false", "null"});
      case 3:
        return pick({"{}", "[]"});
      case 4: {
        std::string text = "[" + space();
        const int count = static_cast<int>(random() % 4);
        for (int i = 0; i < count; ++i)
          text += (i ? "," : "") + space() + value(depth + 1) + space();
        return text + "]";
      }
      default: {
        std::string text = "{" + space();
        const int count = static_cast<int>(random() % 6);
        for (int i = 0; i < count; ++i) {
          const std::string key = pick({R"("b")", R"("a")", R"("a")", R"("k\"q")", R"("\u00e9")",
                                        R"("Z")", R"("")", R"("a ")", R"("ab")"});
          text += (i ? "," : "") + space() + key + space() + ":" + space() + value(depth + 1);
        }
        return text + space() + "}";
      }
    }
  };
  for (int round = 0; round < 3000; ++round) {
    const std::string text = space() + value(0) + space();
    const JSON parsed = JSON::parse(text);
    const JSONText canonical = JSONText::parse(text);
    ASSERT_EQ(canonical.text(), parsed.toString()) << text;
    ASSERT_EQ(canonical.kind(), parsed.kind()) << text;
    ASSERT_FALSE(parsed.nestedDeeperThan(canonical.depth())) << text;
  }
  for (std::string_view bad :
       {std::string_view(R"({"a" 1})"), std::string_view("[1] x"), std::string_view("\"\xC3\x28\""),
        std::string_view("[1] \0x", 6), std::string_view(R"([1e400])"),
        std::string_view(R"({"\udc00":1})"), std::string_view(R"(["\ude00"])"),
        std::string_view("[[[[1]]]]"), std::string_view("")}) {
    auto expected = thrown<DecodingError>([&] { JSON::parse(bad, 3); });
    auto error = thrown<DecodingError>([&] { JSONText::parse(bad, 3); });
    ASSERT_TRUE(expected && error) << bad;
    EXPECT_STREQ(error->what(), expected->what());
    EXPECT_EQ(error->offset(), expected->offset());
  }
}

TEST(JSONText, WritesValidTextForAnyBytes) {
  EXPECT_EQ(JSON(JSON::Map{{"a", JSON(true)}}).toString(), R"({"a":true})");
  EXPECT_EQ(JSON("quote \" backslash \\ newline \n tab \t nul " + std::string(1, '\0')).toString(),
            R"("quote \" backslash \\ newline \n tab \t nul \u0000")");
  // Invalid UTF-8 (a lone continuation byte, a truncated sequence) becomes U+FFFD, in keys too.
  std::string bad = "a\x80z\xE2\x82";
  JSON json(JSON::Map{{bad, JSON(bad)}});
  std::string text = json.toString();
  EXPECT_EQ(
      text,
      "{\"a\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD\":\"a\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD\"}");
  EXPECT_NO_THROW(JSON::parse(text));
  // Valid multi-byte text passes unchanged.
  EXPECT_EQ(JSON("Tự động đóng").toString(), "\"Tự động đóng\"");

  // Every control character is escaped wherever it sits in a string (scans that take sixteen
  // bytes at a time depend on where a string starts), and the text reads back as the same value.
  std::string controls;
  for (char c = 1; c < 0x20; ++c) controls.push_back(c);
  controls.push_back('\x7F');
  for (std::size_t shift = 0; shift < 32; ++shift) {
    const std::string text =
        std::string(shift, 'x') + "\x1B[31mred\x1B[0m" + controls + std::string(40, 'y') + controls;
    const JSON value(JSON::Map{{text, JSON(text)}});
    const std::string written = value.toString();
    EXPECT_EQ(written.find_first_of(controls.substr(0, 31)), std::string::npos) << shift;
    EXPECT_EQ(JSON::parse(written), value) << shift;
  }
}

// Plain keys and strings skip RapidJSON's byte-by-byte escaping: the bytes must be the ones its
// writer produces, for every byte class at every offset within an eight-byte word.
TEST(JSONText, ShortcutForPlainTextWritesWhatRapidJSONWrites) {
  const std::vector<std::string> pieces = {"a",    "Z",  " ",    "~", "\"",       "\\",
                                           "\x1F", "\n", "\x7F", "/", "\xC3\xA9", "\xE2\x82\xAC"};
  std::mt19937 random(20261124);
  for (int round = 0; round < 4000; ++round) {
    std::string text;
    const int length = static_cast<int>(random() % 24);
    for (int i = 0; i < length; ++i) {
      // Mostly plain letters, so that words without any special byte occur too.
      text += random() % 4 != 0 ? std::string(1, static_cast<char>('a' + random() % 26))
                                : pieces[random() % pieces.size()];
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    writer.EndObject();
    ASSERT_EQ(JSON(JSON::Map{{text, JSON(text)}}).toString(), buffer.GetString()) << text;
  }
}

// Keys, strings, numbers and literals skip RapidJSON's writer for one copy each, separators
// included: on generated token streams the bytes must be its writer's, and misuse must still be
// refused as its checks refuse it.
struct TokenScript {
  std::vector<std::function<void(Encoder&)>> ours;
  std::vector<std::function<void(rapidjson::Writer<rapidjson::StringBuffer>&)>> theirs;
};
void encode(Encoder& encoder, const TokenScript& script) {
  for (const auto& step : script.ours) step(encoder);
}

TEST(JSONText, OneCopyValuesWriteWhatRapidJSONWritesAndMisuseIsRefused) {
  using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
  std::mt19937_64 random(20261124);
  const std::vector<std::string> strings = {"", "k", "plain key", "quote\"", "tab\t", "\xC3\xA9"};
  for (int round = 0; round < 500; ++round) {
    TokenScript script;
    auto add = [&](auto ours, auto theirs) {
      script.ours.push_back(ours);
      script.theirs.push_back(theirs);
    };
    // A value of any kind; containers hold up to four of them.
    std::function<void(int)> value = [&](int depth) {
      const std::int64_t i = static_cast<std::int64_t>(random());
      const std::uint64_t u = random();
      switch (random() % (depth > 3 ? 7 : 9)) {
        case 0:
          return add([](Encoder& e) { e.writeNull(); }, [](Writer& w) { w.Null(); });
        case 1:
          return add([](Encoder& e) { e.writeBool(true); }, [](Writer& w) { w.Bool(true); });
        case 2:
          return add([](Encoder& e) { e.writeBool(false); }, [](Writer& w) { w.Bool(false); });
        case 3: {
          const std::int64_t v =
              random() % 5 == 0 ? std::numeric_limits<std::int64_t>::min() : i >> (random() % 64);
          return add([v](Encoder& e) { e.writeInt(v); }, [v](Writer& w) { w.Int64(v); });
        }
        case 4: {
          const std::uint64_t v = u >> (random() % 64);
          return add([v](Encoder& e) { e.writeUInt(v); }, [v](Writer& w) { w.Uint64(v); });
        }
        case 5: {
          const std::string text = std::to_string(i % 100000) + ".25";
          return add(
              [text](Encoder& e) { e.writeDecimal(Decimal::parse(text).value()); },
              [text](Writer& w) { w.RawValue(text.data(), text.size(), rapidjson::kNumberType); });
        }
        case 6: {
          const std::string text = strings[random() % strings.size()];
          return add([text](Encoder& e) { e.writeString(text); },
                     [text](Writer& w) { w.String(text.data(), text.size()); });
        }
        case 7: {
          add([](Encoder& e) { e.beginArray(); }, [](Writer& w) { w.StartArray(); });
          for (int n = static_cast<int>(random() % 5); n > 0; --n) value(depth + 1);
          return add([](Encoder& e) { e.endArray(); }, [](Writer& w) { w.EndArray(); });
        }
        default: {
          add([](Encoder& e) { e.beginObject(); }, [](Writer& w) { w.StartObject(); });
          for (int n = static_cast<int>(random() % 5); n > 0; --n) {
            const std::string key = strings[random() % strings.size()];
            add([key](Encoder& e) { e.writeKey(key); },
                [key](Writer& w) { w.Key(key.data(), key.size()); });
            value(depth + 1);
          }
          return add([](Encoder& e) { e.endObject(); }, [](Writer& w) { w.EndObject(); });
        }
      }
    };
    value(0);
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    for (const auto& step : script.theirs) step(writer);
    ASSERT_EQ(toString(script), buffer.GetString()) << "round " << round;
  }

  // A value where a key belongs, and a second value after the first, are refused.
  TokenScript numberAsKey;
  numberAsKey.ours = {[](Encoder& e) { e.beginObject(); }, [](Encoder& e) { e.writeInt(1); },
                      [](Encoder& e) { e.writeInt(2); }, [](Encoder& e) { e.endObject(); }};
  std::string out;
  EXPECT_THROW(appendJSONText(out, numberAsKey), JSONError);
  TokenScript literalAsKey;
  literalAsKey.ours = {[](Encoder& e) { e.beginObject(); }, [](Encoder& e) { e.writeBool(true); },
                       [](Encoder& e) { e.writeNull(); }, [](Encoder& e) { e.endObject(); }};
  EXPECT_THROW(appendJSONText(out, literalAsKey), JSONError);
  TokenScript twoRoots;
  twoRoots.ours = {[](Encoder& e) { e.writeString("a"); }, [](Encoder& e) { e.writeUInt(7); }};
  EXPECT_THROW(appendJSONText(out, twoRoots), JSONError);
}

// A host dictionary written straight to text gives the bytes of building it as JSON first, and
// fails where that fails, with the same error: checked on generated dictionaries of every kind.
TEST(JSONText, HostDictionaryTextIsTheTextOfItsJSON) {
  std::mt19937 random(424242);
  std::function<std::any(int)> value = [&](int depth) -> std::any {
    switch (random() % (depth > 3 ? 17 : 20)) {
      case 0:
        return std::string("plain");
      case 1:
        return std::string("quote \" é \x80 \x01");
      case 2:
        return static_cast<int>(random() % 2000) - 1000;
      case 3:
        return std::int64_t{-9'007'199'254'740'993};
      case 4:
        return random() % 2 == 0;
      case 5:
        return Decimal::parse("129.950").value();
      case 6:
        return 0.1;
      case 7:
        return 1e300;
      case 8:
        return 2.5f;
      case 9:
        return "chars";
      case 10:
        return Null{};
      case 11:
        return std::uint64_t{18'446'744'073'709'551'615u};
      case 12:
        return static_cast<char>('A');
      case 13:
        return JSON(JSON::Map{{"j", JSON(1)}});
      case 14:
        return std::string_view("view");
      case 15:
        return std::any();
      case 16:
        return random() % 50 == 0 ? std::any(std::numeric_limits<double>::quiet_NaN())
                                  : std::any(std::string("rare"));
      case 17:
      case 18: {
        Dictionary nested;
        for (int i = static_cast<int>(random() % 4); i > 0; --i)
          nested["k" + std::to_string(random() % 9)] = value(depth + 1);
        return nested;
      }
      default: {
        Array array;
        for (int i = static_cast<int>(random() % 4); i > 0; --i) array.push_back(value(depth + 1));
        return array;
      }
    }
  };
  int failures = 0;
  for (int round = 0; round < 2000; ++round) {
    Dictionary dictionary;
    for (int i = static_cast<int>(random() % 8); i > 0; --i)
      dictionary["p" + std::to_string(random() % 12)] = value(0);
    std::string expected, actual;
    try {
      expected = JSON(dictionary).toString();
    } catch (const JSONError& error) {
      expected = std::string("error: ") + error.what();
    }
    try {
      actual = hostDictionaryText(dictionary);
    } catch (const JSONError& error) {
      actual = std::string("error: ") + error.what();
    }
    failures += expected.starts_with("error: ");
    ASSERT_EQ(actual, expected) << "round " << round;
  }
  EXPECT_GT(failures, 0) << "the generator never produced a value without a JSON form";
  // Nesting past the limit fails the same way.
  std::any deep = Dictionary{};
  for (int i = 0; i < JSON::maxNestingDepth + 2; ++i) deep = Dictionary{{"d", deep}};
  const auto& deepest = *std::any_cast<Dictionary>(&deep);
  std::string expected, actual;
  try {
    (void)JSON(deepest).toString();
  } catch (const JSONError& e) {
    expected = e.what();
  }
  try {
    (void)hostDictionaryText(deepest);
  } catch (const JSONError& e) {
    actual = e.what();
  }
  EXPECT_FALSE(expected.empty());
  EXPECT_EQ(actual, expected);
}

TEST(JSONEdits, ReturnNewValuesAndCheckTheCase) {
  const JSON object = JSON::parse(R"({"a":1})");
  const JSON array = JSON::parse("[1]");
  for (auto wrongCase : std::vector<std::function<void()>>{
           [&] { (void)object.add(std::any(2)); }, [&] { (void)array.add(std::any(2), "k"); },
           [&] { (void)array.remove("k"); }}) {
    EXPECT_EQ(thrown<JSONError>(wrongCase).value_or(JSONError::unknown()).kind(),
              JSONError::Kind::incorrectType);
  }

  EXPECT_EQ(array.add(std::string("x"))->toString(), R"([1,"x"])");
  EXPECT_EQ(object.add(Dictionary{{"z", true}}, "b")->toString(), R"({"a":1,"b":{"z":true}})");
  EXPECT_EQ(object.remove("a")->toString(), "{}");
  // The receiver is untouched.
  EXPECT_EQ(object.toString(), R"({"a":1})");
  // A failing conversion leaves nothing half done.
  EXPECT_THROW((void)object.add(Opaque{}, "b"), JSONError);
}

TEST(JSONLookupDeathTest, NegativeIndexIsFatal) {
  EXPECT_DEATH((void)JSON::parse("[1]")[-1], "index");
}

TEST(JSONTransform, RenamesAtEveryDepthAndTransformsLeaves) {
  JSON json = JSON::parse(R"({"a":{"a":1},"list":[{"a":2},3],"keep":"x"})");
  std::vector<std::string> seenKeys;
  JSON out = json.mapTransform({{"a", "b"}, {"list", "items"}},
                               [&](const std::string& key, const std::any& value) -> std::any {
                                 seenKeys.push_back(key);
                                 if (key == "keep") return std::string("changed");
                                 return value;
                               });
  EXPECT_EQ(out.toString(), R"({"b":{"b":1},"items":[{"b":2},3],"keep":"changed"})");
  // Leaves see the renamed key; arrays go through whole; dictionaries never do.
  std::sort(seenKeys.begin(), seenKeys.end());
  EXPECT_EQ(seenKeys, (std::vector<std::string>{"b", "b", "items", "keep"}));
  // Renaming is one step: a is renamed to b, b is not renamed again.
  EXPECT_EQ(JSON::parse(R"({"a":1})").mapTransform({{"a", "b"}, {"b", "c"}}).toString(),
            R"({"b":1})");
}

TEST(JSONTransformDeathTest, TwoKeysRenamedOntoOneAreFatal) {
  JSON json = JSON::parse(R"({"a":1,"b":2})");
  EXPECT_DEATH(json.mapTransform({{"a", "b"}}), "Duplicate values for key: 'b'");
}

struct Point {
  std::int64_t x = 0;
  std::int64_t y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};
void encode(Encoder& encoder, const Point& p) {
  encoder.beginObject();
  encoder.field("x", p.x);
  encoder.field("y", p.y);
  encoder.endObject();
}
void decode(const JSON& json, Point& p) {
  decodeRequired(json, "x", p.x);
  decodeRequired(json, "y", p.y);
}

TEST(JSONKeyPaths, ReadNestedValuesAsRequestedTypes) {
  JSON json = JSON::parse(
      R"({"user":{"name":"Ann","age":41,"home":{"x":1,"y":2}},"Pelora.io":{"apiKey":"k"}})");
  EXPECT_EQ(json.value<int>("user.age"), 41);
  EXPECT_EQ(json.value<Point>("user.home"), (Point{1, 2}));
  EXPECT_EQ(json.value<std::string>("Pelora.io.apiKey"), "k");  // a dotted key as one key
  EXPECT_FALSE(json.value<std::string>("user.missing"));
  EXPECT_FALSE(json.value<int>("user.name"));

  // A failed nested decode is logged.
  platform::log::setDebugEnabled(true);
  testing::internal::CaptureStdout();
  EXPECT_FALSE(JSON::parse(R"({"home":{"x":1}})").value<Point>("home"));
  std::string output = testing::internal::GetCapturedStdout();
  platform::log::setDebugEnabled(false);
  EXPECT_NE(output.find("Unable to decode object (home) to a Codable: "), std::string::npos)
      << output;
  EXPECT_NE(output.find("subscript(keyPath:)"), std::string::npos) << output;
}

TEST(JSONKeyPaths, WritesCreateLevelsAndKeepValueSemantics) {
  JSON json = JSON::parse(R"({"a":{"keep":true},"s":"x"})");
  const JSON before = json;
  json.setValue(std::string("iOS"), "platform");
  json.setValue(5, "a.b.c");
  json.setValue(Point{3, 4}, "s.point");  // replaces a non-object on the way
  EXPECT_EQ(json.toString(),
            R"({"a":{"b":{"c":5},"keep":true},"platform":"iOS","s":{"point":{"x":3,"y":4}}})");
  json.setValue(std::optional<int>(), "a.keep");
  EXPECT_FALSE(json.value<bool>("a.keep"));
  EXPECT_EQ(before.toString(), R"({"a":{"keep":true},"s":"x"})");
}

// One limit both ways: what a path writes, the same path reads back; a longer path does neither
// (a write past what reads reach would leave a value nobody can find).
TEST(JSONKeyPaths, WritesAndReadsShareOneLengthLimit) {
  for (const std::size_t components :
       {std::size_t{1}, KeyPath::maxComponents, KeyPath::maxComponents + 1, std::size_t{267}}) {
    SCOPED_TRACE(components);
    std::string path = "k";
    for (std::size_t i = 1; i < components; ++i) path += ".k";
    const bool allowed = components <= KeyPath::maxComponents;
    JSON json(JSON::Map{});
    json.setValue(7, path);
    EXPECT_EQ(json.value<int>(path), allowed ? std::optional(7) : std::nullopt);
    EXPECT_EQ(json == JSON(JSON::Map{}), !allowed);
    Dictionary dictionary;
    setValueForKeyPath(dictionary, 7, path);
    EXPECT_EQ(dictionary.empty(), !allowed);
    EXPECT_EQ(valueForKeyPath(dictionary, path).has_value(), allowed);
  }
}

TEST(JSONKeyPaths, LookupsStayCheapOnSelfReferringDocumentsAndFollowLongChains) {
  // Each "@if" refers back to its own key twice: without a bound, every level doubles the work.
  const JSON selfReferring = JSON::parse(
      R"({"a":{"@if":{"exists":"$.a","then":"$.a","else":{"@path":"$.b"}}},)"
      R"("b":{"@if":{"blank":"$.b","then":"$.a","else":"$.b"}},"c.d":{"@path":"$.c.d"}})");
  const auto start = std::chrono::steady_clock::now();
  for (const char* path : {"a", "b", "c.d", "a.x.y"}) {
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(selfReferring.value<std::any>(path)) << path;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  // A chain of 100 "@path" links ends at its value; "k0.inner" reads through them.
  JSON::Map links;
  for (int i = 0; i < 100; ++i) {
    links.emplace("k" + std::to_string(i),
                  JSON(JSON::Map{{"@path", JSON("$.k" + std::to_string(i + 1))}}));
  }
  links.emplace("k100", JSON(JSON::Map{{"inner", JSON("end")}}));
  const JSON chain(std::move(links));
  EXPECT_EQ(chain.value<std::string>("k0.inner"), "end");
  Dictionary dictionary = chain.dictionaryValue().value();
  EXPECT_EQ(std::any_cast<Dictionary>(valueForKeyPath(dictionary, "k0")).size(), 1u);
}

TEST(JSONNesting, ValuesDeeperThanAReaderTakesAreRefusedWithoutExhaustingTheStack) {
  // `levels` containers deep, dictionaries and arrays in turn.
  auto nested = [](int levels) {
    std::any value = 1;
    for (int i = 0; i < levels; ++i) {
      if (i % 2 == 0) {
        Dictionary d;
        d.emplace("d", std::move(value));
        value = std::move(d);
      } else {
        Array a;
        a.push_back(std::move(value));
        value = std::move(a);
      }
    }
    return value;
  };
  auto nestedJSON = [](int levels) {
    JSON json(1);
    for (int i = 0; i < levels; ++i) json = JSON(JSON::List{json});
    return json;
  };
  constexpr int limit = JSON::maxNestingDepth;

  // Host values, typed values and JSON built by hand, far too deep, on a small stack.
  std::vector<std::any> typed;  // copying a host value that deep takes the host's own stack
  typed.push_back(nested(6000));
  const std::any& tooDeep = typed.front();
  const JSON handBuilt = nestedJSON(6000);
  std::string error;
  std::string handBuiltText = "unset";
  std::string typedText = "unset";
  test::runOnSmallStack([&] {
    try {
      (void)JSON::fromAny(tooDeep);
    } catch (const JSONError& e) {
      error = e.what();
    }
    handBuiltText = handBuilt.toString();
    typedText = toString(typed);
  });
  EXPECT_NE(error.find("nested deeper than 512 levels"), std::string::npos) << error;
  EXPECT_EQ(handBuiltText, "");
  EXPECT_EQ(typedText, "");

  // Exactly the reader's limit converts, is written and reads back; one level more does not.
  const JSON atLimit = JSON::fromAny(nested(limit));
  EXPECT_EQ(JSON::parse(atLimit.toString()), atLimit);
  EXPECT_THROW(JSON::fromAny(nested(limit + 1)), JSONError);
  EXPECT_EQ(JSON::parse(nestedJSON(limit).toString()), nestedJSON(limit));
  EXPECT_EQ(nestedJSON(limit + 1).toString(), "");
  EXPECT_THROW(JSON::fromAny(nestedJSON(limit + 1)), JSONError);
  EXPECT_FALSE(nestedJSON(limit).nestedDeeperThan(limit));
  EXPECT_TRUE(nestedJSON(limit + 1).nestedDeeperThan(limit));
}

TEST(JSONCoding, RecordsBecomeJSONAndBack) {
  JSON json = JSON::with(Point{1, -2});
  EXPECT_EQ(json.toString(), R"({"x":1,"y":-2})");
  EXPECT_EQ(json.codableValue<Point>(), (Point{1, -2}));
  EXPECT_FALSE(JSON::parse(R"({"x":1.5,"y":1})").codableValue<Point>());
  EXPECT_EQ(toString(std::nan("")), "");
  EXPECT_THROW(JSON::with(Dictionary{{"d", std::chrono::seconds(1)}}), JSONError);
}

}  // namespace
}  // namespace pelora
