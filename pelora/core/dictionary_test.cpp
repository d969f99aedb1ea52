#include "pelora/core/dictionary.hpp"

#include <gtest/gtest.h>

#include <string>

namespace pelora {
namespace {

TEST(DictionaryKeyPaths, PathAndIfIndirectionsResolveAgainstTheRoot) {
  Dictionary d{
      {"context", Dictionary{{"id", std::string("abc")}, {"empty", std::string()}}},
      {"alias", Dictionary{{"@path", std::string("$.context.id")}}},
      {"pick", Dictionary{{"@if", Dictionary{{"exists", std::string("$.context.id")},
                                             {"then", std::string("yes")},
                                             {"else", std::string("no")}}}}},
      {"blank", Dictionary{{"@if", Dictionary{{"blank", std::string("$.context.empty")},
                                              {"then", Dictionary{{"@path", "$.context.id"}}},
                                              {"else", std::string("filled")}}}}},
      {"missing", Dictionary{{"@if", Dictionary{{"exists", std::string("$.nope")},
                                                {"then", std::string("yes")}}}}},
      {"loop", Dictionary{{"@path", std::string("$.loop")}}},
  };
  EXPECT_EQ(std::any_cast<std::string>(valueForKeyPath(d, "alias")), "abc");
  EXPECT_EQ(std::any_cast<std::string>(valueForKeyPath(d, "pick")), "yes");
  EXPECT_EQ(std::any_cast<std::string>(valueForKeyPath(d, "blank")), "abc");
  EXPECT_FALSE(valueForKeyPath(d, "missing").has_value());
  EXPECT_FALSE(valueForKeyPath(d, "loop").has_value());
}

TEST(DictionaryKeyPaths, WritesCreateAndReplaceLevelsAndAnEmptyValueRemoves) {
  Dictionary d{{"a", 1}, {"Pelora.io", Dictionary{{"key", std::string("k")}}}};
  setValueForKeyPath(d, std::string("deep"), "a.b.c");  // 1 is replaced by a level
  EXPECT_EQ(std::any_cast<std::string>(valueForKeyPath(d, "a.b.c")), "deep");
  // A dotted key is found when the dictionary holds the rest as one key.
  EXPECT_EQ(std::any_cast<std::string>(valueForKeyPath(d, "Pelora.io.key")), "k");
  setValueForKeyPath(d, std::any(), "a.b.c");
  EXPECT_FALSE(valueForKeyPath(d, "a.b.c").has_value());
  EXPECT_TRUE(valueForKeyPath(d, "a.b").has_value());  // only the entry goes
  EXPECT_FALSE(valueForKeyPath(d, "a.b.c.d").has_value());
}

TEST(DictionaryTransform, RenamesOnceAtEveryDepthAndPassesLeavesThrough) {
  const Dictionary d{{"a", Dictionary{{"a", 1}}},
                     {"list", Array{Dictionary{{"a", 2}}, 3}},
                     {"b", std::string("x")}};
  std::vector<std::string> leaves;
  const Dictionary out =
      mapTransform(d, {{"a", "b"}, {"b", "c"}}, [&](const std::string& key, const std::any& value) {
        leaves.push_back(key);
        return key == "c" ? std::any(std::string("changed")) : value;
      });
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(std::any_cast<int>(std::any_cast<const Dictionary&>(out.at("b")).at("b")), 1);
  const auto& list = std::any_cast<const Array&>(out.at("list"));
  EXPECT_EQ(std::any_cast<const Dictionary&>(list[0]).count("b"), 1u);
  EXPECT_EQ(std::any_cast<std::string>(out.at("c")), "changed");
  std::sort(leaves.begin(), leaves.end());
  EXPECT_EQ(leaves, (std::vector<std::string>{"b", "b", "c", "list"}));
}

}  // namespace
}  // namespace pelora
