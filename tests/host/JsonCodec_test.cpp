#include "host/JsonCodec.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>

namespace tessard {
namespace {

using testing::HasSubstr;

Value parsed(std::string_view text) {
  auto value = parseJson(text);
  EXPECT_TRUE(value.ok()) << text << ": " << (value ? "" : value.error().description());
  return value ? value.value() : Value("failed");
}

std::string refusal(std::string_view text) {
  const auto value = parseJson(text);
  EXPECT_FALSE(value.ok()) << text;
  return value ? "" : value.error().description();
}

TEST(JsonCodec, ReadsEveryKindOfValue) {
  const Value value =
      parsed(R"({"s": "a\u00fc\n", "i": -7, "r": 1.5, "t": true, "f": false, "l": [1, "x"]})");
  const Dictionary expected = {{"s", "aü\n"}, {"i", -7},    {"r", 1.5},
                               {"t", true},   {"f", false}, {"l", Array{1, "x"}}};
  EXPECT_EQ(*value.asDictionary(), expected);
}

TEST(JsonCodec, KeepsTheOrderOfKeys) {
  EXPECT_EQ(serializeJson(parsed(R"({"z": 1, "a": 2, "m": 3})")), R"({"z":1,"a":2,"m":3})");
}

TEST(JsonCodec, KeepsIntegersRealsAndBooleansApart) {
  EXPECT_TRUE(parsed("1").asInteger());
  EXPECT_TRUE(parsed("1.0").asReal());
  EXPECT_TRUE(parsed("1e3").asReal());
  EXPECT_TRUE(parsed("true").asBoolean());
  EXPECT_EQ(serializeJson(1.0), "1.0");
}

TEST(JsonCodec, HoldsTheWholeRangeOfIntegers) {
  EXPECT_EQ(*parsed("9223372036854775807").asInteger(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(*parsed("-9223372036854775808").asInteger(), std::numeric_limits<std::int64_t>::min());
}

TEST(JsonCodec, RefusesIntegersBeyond64Bits) {
  EXPECT_EQ(refusal("9223372036854775808"), "the integer 9223372036854775808 does not fit into 64 bits");
  EXPECT_THAT(refusal("-9223372036854775809"), HasSubstr("64 bits"));
  EXPECT_THAT(refusal("18446744073709551616"), HasSubstr("64 bits"));
}

TEST(JsonCodec, RefusesRealsBeyondTheirRange) {
  EXPECT_EQ(refusal("1e999"), "a number is too large");
}

TEST(JsonCodec, TakesNullForAbsent) {
  EXPECT_EQ(serializeJson(parsed(R"([1, null, {"a": null, "b": 2}])")), R"([1,{"b":2}])");
  EXPECT_EQ(refusal("null"), "the JSON text holds no value");
}

TEST(JsonCodec, RefusesDoubledKeys) {
  EXPECT_EQ(refusal(R"({"a": 1, "a": 1})"), "the key \"a\" is doubled");
  EXPECT_EQ(refusal(R"([{"x": {"a": null, "a": 1}}])"), "the key \"a\" is doubled");
  parsed(R"([{"a": 1}, {"a": {"a": 2}}])");
}

TEST(JsonCodec, RefusesWhatIsMalformed) {
  for (const char* text :
       {"", " ", "{", "[1,]", "{\"a\"}", "{'a': 1}", "tru", "01", "+1", "\"a", "\"\t\"", "1 2", "{} x", "NaN",
        "\"\\ud800\"", "\"\xff\"", "\"\xc0\x80\"", "\"\xed\xa0\x80\""}) {
    EXPECT_THAT(refusal(text), HasSubstr("malformed at byte")) << text;
  }
}

TEST(JsonCodec, ReadsUpToTheDepthLimitAndNoDeeper) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(serializeJson(parsed(nested(kJsonDepthLimit))), nested(kJsonDepthLimit));
  EXPECT_EQ(refusal(nested(kJsonDepthLimit + 1)), "the JSON text is nested deeper than 64 levels");
  EXPECT_THAT(refusal(std::string(1'000'000, '[')), HasSubstr("nested deeper"));
}

TEST(JsonCodec, WritesDataAndDatesAsObjectsWithAReservedKey) {
  EXPECT_EQ(serializeJson(Data{std::string("\0\x01", 2)}), R"({"$data":"AAE="})");
  EXPECT_EQ(serializeJson(Date{1795226427000000}), R"({"$date":"2026-11-21T02:00:27Z"})");
}

TEST(JsonCodec, ReadsDataAndDatesAnywhere) {
  const Value value = parsed(R"([{"$data": "AAE="}, {"when": {"$date": "2026-11-21T02:00:27Z"}}])");
  const Array expected = {Data{std::string("\0\x01", 2)}, Dictionary{{"when", Date{1795226427000000}}}};
  EXPECT_EQ(*value.asArray(), expected);
  EXPECT_TRUE(parsed(R"({"$data": ""})").asData());
}

TEST(JsonCodec, RefusesReservedKeysWithOtherValues) {
  EXPECT_EQ(refusal(R"({"$data": 1})"), "\"$data\" must be a padded base64 string");
  EXPECT_THAT(refusal(R"({"$data": "AAE"})"), HasSubstr("$data"));
  EXPECT_THAT(refusal(R"({"$date": "2026-02-30T00:00:00Z"})"), HasSubstr("$date"));
  EXPECT_THAT(refusal(R"({"a": [{"$date": []}]})"), HasSubstr("$date"));
  EXPECT_EQ(refusal(R"({"$literal": "x"})"), "\"$literal\" must be an object");
}

TEST(JsonCodec, TakesObjectsWithFurtherKeysAsTheyStand) {
  const Value value = parsed(R"({"$data": "!", "$date": 1, "$literal": []})");
  EXPECT_EQ(value.asDictionary()->size(), 3U);
}

TEST(JsonCodec, ReadsLiteralObjectsAsTheyStandButNotWhatIsInThem) {
  const Value value = parsed(R"({"$literal": {"$data": {"$data": "AA=="}}})");
  ASSERT_TRUE(value.asDictionary());
  EXPECT_TRUE(value.asDictionary()->find("$data")->asData());
}

TEST(JsonCodec, GivesBackDictionariesThatLookReserved) {
  for (const char* key : {"$data", "$date", "$literal"}) {
    for (const Value& content : {Value("x"), Value(1), Value(Dictionary{{"$literal", Dictionary()}})}) {
      const Value value = Dictionary{{key, content}};
      EXPECT_EQ(parsed(serializeJson(value)), value) << serializeJson(value);
    }
  }
}

TEST(JsonCodec, CountsEveryValue) {
  for (const std::string text : {"[1,2,3]", "[[],[null],{}]", R"({"a":null,"b":{"c":1}})"}) {
    const std::size_t values = text == "[[],[null],{}]" ? 5 : 4;
    EXPECT_TRUE(parseJson(text, values).ok()) << text;
    const auto refused = parseJson(text, values - 1);
    ASSERT_FALSE(refused.ok()) << text;
    EXPECT_EQ(refused.error().description(),
              "the JSON text holds more than " + std::to_string(values - 1) + " values");
  }
}

TEST(JsonCodec, WritesWhatJsonHasNoNumberForAsText) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const Value value = Array{kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN()};
  EXPECT_EQ(serializeJson(value), R"(["Infinity","-Infinity","NaN"])");
}

TEST(JsonCodec, WritesTextThatIsNotUtf8WithReplacements) {
  EXPECT_EQ(serializeJson("a\xff"), "\"a\xef\xbf\xbd\"");
}

TEST(JsonCodec, EscapesWhatNeedsIt) {
  EXPECT_EQ(serializeJson(std::string("\"\\\n\x01\0", 5)), R"("\"\\\n\u0001\u0000")");
}

TEST(JsonCodec, IndentsForPeople) {
  const Value value = Dictionary{{"a", Array{1, Dictionary()}}, {"b", Array()}};
  EXPECT_EQ(serializeJson(value, true), "{\n  \"a\": [\n    1,\n    {}\n  ],\n  \"b\": []\n}");
}

}  // namespace
}  // namespace tessard
