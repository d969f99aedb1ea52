#include "pelora/messages/iam_records.hpp"

#include <gtest/gtest.h>

namespace pelora {
namespace {

IAMResponse response(std::string_view text) {
  return decodeFromString<IAMResponse>(text);
}

// A pull answer whose "data" holds `data` as a string.
IAMResponse delivering(const std::string& data) {
  return response(R"({"code":"OK","data":)" + toString(data) + "}");
}

TEST(IAMRecords, ThreeLevelsEachDecodedFromTheTextOfTheOneAbove) {
  const std::string message = R"({"htmlContent":"<p>Hi</p>","jsonContent":{"k":[1]},"extra":1})";
  const std::string data = R"({"activeType":"TIME","closingAfter":5,"activeValue":3,"name":"n",)"
                           R"("actionOpen":"https://o","actionClick":"https://c?u=","message":)" +
                           toString(message) + R"(,"unknown":{"x":[]}})";
  const IAMResponse answer = delivering(data);
  EXPECT_EQ(answer.code, "OK");
  const auto decoded = answer.decodedData();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->activeType, "TIME");
  EXPECT_EQ(decoded->closingAfter, 5);
  EXPECT_EQ(decoded->activeValue, 3);
  EXPECT_EQ(decoded->actionClick, "https://c?u=");
  const auto inner = decoded->decodedMessage();
  ASSERT_TRUE(inner);
  EXPECT_EQ(inner->htmlContent, "<p>Hi</p>");
  EXPECT_EQ(inner->jsonContent, JSON::parse(R"({"k":[1]})"));

  // "{}" gives every field absent; "[]" or text that is not JSON gives nothing, never an error.
  EXPECT_EQ(delivering("{}").decodedData(), IAMData{});
  for (const char* notData : {"[]", "not json", R"({"activeValue":"5"})", R"({"closingAfter":1.5})",
                              R"({"name":7})", ""}) {
    EXPECT_FALSE(delivering(notData).decodedData()) << notData;
  }
  EXPECT_FALSE(IAMResponse{}.decodedData());

  // The message needs "jsonContent"; "htmlContent" alone gives nothing, "jsonContent" alone a
  // message without HTML.
  IAMData data2;
  data2.message = R"({"htmlContent":"<p>x</p>"})";
  EXPECT_FALSE(data2.decodedMessage());
  data2.message = R"({"jsonContent":null})";
  ASSERT_TRUE(data2.decodedMessage());
  EXPECT_FALSE(data2.decodedMessage()->htmlContent);
}

TEST(IAMRecords, EnvelopeFieldsMustBeStringsOrMissing) {
  EXPECT_THROW(response(R"({"code":200,"data":"{}"})"), DecodingError);
  EXPECT_THROW(response(R"({"data":{"activeType":"time"}})"), DecodingError);
  const IAMResponse other = response(R"({"code":"FAIL","data":"{}","message":null,"more":1})");
  EXPECT_EQ(other.code, "FAIL");
  EXPECT_TRUE(other.decodedData());  // the manager, not the record, ignores a code that is not OK
  EXPECT_FALSE(other.message);
  EXPECT_EQ(description(other), R"(IAMResponse(data: "{}", message: nil, code: "FAIL"))");
}

}  // namespace
}  // namespace pelora
