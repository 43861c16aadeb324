#include "common/Value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tessard {
namespace {

using testing::ElementsAre;

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

TEST(ValueKind, EachValueAnswersToItsOwnKindAlone) {
  EXPECT_EQ(*Value("a").asString(), "a");
  EXPECT_EQ(*Value(std::string_view("b")).asString(), "b");
  EXPECT_EQ(*Value(7).asInteger(), 7);
  EXPECT_EQ(*Value(kSmallest).asInteger(), kSmallest);
  EXPECT_EQ(*Value(0.5).asReal(), 0.5);
  EXPECT_TRUE(*Value(true).asBoolean());
  EXPECT_EQ(Value(Data{"x"}).asData()->bytes, "x");
  EXPECT_EQ(Value(Date{5}).asDate()->microsecondsSince1970, 5);
  EXPECT_EQ(Value(Array{1, 2}).asArray()->size(), 2U);
  EXPECT_EQ(Value(Dictionary{{"k", 1}}).asDictionary()->size(), 1U);

  EXPECT_EQ(Value("1").asInteger(), nullptr);
  EXPECT_EQ(Value(1).asString(), nullptr);
  EXPECT_EQ(Value(1).asBoolean(), nullptr);
  EXPECT_EQ(Value(true).asInteger(), nullptr);
  EXPECT_EQ(Value(1).asReal(), nullptr);
  EXPECT_EQ(Value("x").asData(), nullptr);
  EXPECT_EQ(Value(5).asDate(), nullptr);
  EXPECT_EQ(Value("x").asArray(), nullptr);
  EXPECT_EQ(Value(Array{}).asDictionary(), nullptr);
}

TEST(ValueKind, NumbersAreIntegersRealsAndBooleans) {
  EXPECT_TRUE(Value(0).isNumber());
  EXPECT_TRUE(Value(0.0).isNumber());
  EXPECT_TRUE(Value(false).isNumber());
  EXPECT_FALSE(Value("0").isNumber());
  EXPECT_FALSE(Value(Date{}).isNumber());
  EXPECT_FALSE(Value(Array{}).isNumber());
}

TEST(ValueKind, AContainerInsideAValueCanBeChangedInPlace) {
  Value list(Array{1});
  list.asArray()->emplace_back(2);
  EXPECT_EQ(list, Value(Array{1, 2}));
  Value table(Dictionary{});
  table.asDictionary()->set("k", "v");
  EXPECT_EQ(table, Value(Dictionary{{"k", "v"}}));
}

TEST(BoolValue, NumbersAreTrueUnlessZero) {
  EXPECT_TRUE(Value(true).boolValue());
  EXPECT_FALSE(Value(false).boolValue());
  EXPECT_TRUE(Value(-3).boolValue());
  EXPECT_FALSE(Value(0).boolValue());
  EXPECT_TRUE(Value(0.25).boolValue());
  EXPECT_FALSE(Value(-0.0).boolValue());
}

TEST(BoolValue, StringsThatBeginWithYesTrueOrANumberAboveZeroAreTrue) {
  for (const char* text : {"YES", "yes",   "Y",   "y",  "true", "TRUE", "t",      "T",    "1",  "9",
                           "42",  "  YES", "\t1", "+1", "-1",   "001",  " -0007", "+Yes", "0y", "1abc"}) {
    EXPECT_TRUE(Value(text).boolValue()) << text;
  }
}

TEST(BoolValue, OtherStringsAreFalse) {
  for (const char* text : {"", " ", "NO", "no", "false", "0", "000", "+", "-", "+-1", "on", "x1", "0.5"}) {
    EXPECT_FALSE(Value(text).boolValue()) << text;
  }
}

TEST(BoolValue, WhatIsNoNumberAndNoStringIsFalse) {
  EXPECT_FALSE(Value(Data{"1"}).boolValue());
  EXPECT_FALSE(Value(Date{1}).boolValue());
  EXPECT_FALSE(Value(Array{true}).boolValue());
  EXPECT_FALSE(Value(Dictionary{{"a", true}}).boolValue());
}

TEST(IntegerValue, NumbersAreTruncatedTowardsZero) {
  EXPECT_EQ(Value(5268).integerValue(), 5268);
  EXPECT_EQ(Value(true).integerValue(), 1);
  EXPECT_EQ(Value(false).integerValue(), 0);
  EXPECT_EQ(Value(2.9).integerValue(), 2);
  EXPECT_EQ(Value(-2.9).integerValue(), -2);
}

TEST(IntegerValue, RealsAreHeldToTheRangeOf64Bits) {
  EXPECT_EQ(Value(1e30).integerValue(), kLargest);
  EXPECT_EQ(Value(-1e30).integerValue(), kSmallest);
  EXPECT_EQ(Value(0x1p63).integerValue(), kLargest);
  EXPECT_EQ(Value(-0x1p63).integerValue(), kSmallest);
  EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).integerValue(), kLargest);
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
}

TEST(IntegerValue, AStringGivesTheNumberItBeginsWith) {
  EXPECT_EQ(Value("5218").integerValue(), 5218);
  EXPECT_EQ(Value(" \t\n5218 ").integerValue(), 5218);
  EXPECT_EQ(Value("+12").integerValue(), 12);
  EXPECT_EQ(Value("-12").integerValue(), -12);
  EXPECT_EQ(Value("007").integerValue(), 7);
  EXPECT_EQ(Value("12.9").integerValue(), 12);
  EXPECT_EQ(Value("12abc").integerValue(), 12);
}

TEST(IntegerValue, AStringWithoutDigitsInFrontGivesZero) {
  for (const char* text : {"", " ", "abc", "+", "-", "+-5", "--5", "- 5", ".5"}) {
    EXPECT_EQ(Value(text).integerValue(), 0) << text;
  }
}

TEST(IntegerValue, StringsAreHeldToTheRangeOf64Bits) {
  EXPECT_EQ(Value("9223372036854775807").integerValue(), kLargest);
  EXPECT_EQ(Value("9223372036854775808").integerValue(), kLargest);
  EXPECT_EQ(Value("-9223372036854775807").integerValue(), kSmallest + 1);
  EXPECT_EQ(Value("-9223372036854775808").integerValue(), kSmallest);
  EXPECT_EQ(Value("-9223372036854775809").integerValue(), kSmallest);
  EXPECT_EQ(Value("99999999999999999999999").integerValue(), kLargest);
  EXPECT_EQ(Value("-99999999999999999999999").integerValue(), kSmallest);
}

TEST(IntegerValue, WhatIsNoNumberAndNoStringIsZero) {
  EXPECT_EQ(Value(Data{"7"}).integerValue(), 0);
  EXPECT_EQ(Value(Date{7}).integerValue(), 0);
  EXPECT_EQ(Value(Array{7}).integerValue(), 0);
  EXPECT_EQ(Value(Dictionary{}).integerValue(), 0);
}

TEST(StringValue, StringsAreThemselvesAndNumbersTheirDigits) {
  EXPECT_EQ(Value("text").stringValue(), "text");
  EXPECT_EQ(Value("").stringValue(), "");
  EXPECT_EQ(Value(5218).stringValue(), "5218");
  EXPECT_EQ(Value(-7).stringValue(), "-7");
  EXPECT_EQ(Value(true).stringValue(), "1");
  EXPECT_EQ(Value(false).stringValue(), "0");
  EXPECT_EQ(Value(0.5).stringValue(), "0.5");
}

TEST(StringValue, WholeRealsAreWrittenInFull) {
  EXPECT_EQ(Value(5218.0).stringValue(), "5218");
  EXPECT_EQ(Value(100000.0).stringValue(), "100000");
  EXPECT_EQ(Value(-0.0).stringValue(), "0");
  EXPECT_EQ(Value(9007199254740991.0).stringValue(), "9007199254740991");
  EXPECT_EQ(Value(1e300).stringValue(), "1e+300");
}

TEST(StringValue, ContainersDataAndDatesHaveNone) {
  EXPECT_EQ(Value(Data{"x"}).stringValue(), std::nullopt);
  EXPECT_EQ(Value(Date{1}).stringValue(), std::nullopt);
  EXPECT_EQ(Value(Array{"x"}).stringValue(), std::nullopt);
  EXPECT_EQ(Value(Dictionary{}).stringValue(), std::nullopt);
}

TEST(ValueEquality, NumbersOfAllKindsAreComparedByValue) {
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1.0), Value(true));
  EXPECT_EQ(Value(false), Value(0));
  EXPECT_FALSE(Value(true) == Value(2));
  EXPECT_FALSE(Value(1) == Value(1.5));
  EXPECT_FALSE(Value(1.5) == Value(1));
  EXPECT_FALSE(Value(1.5) == Value(2.5));
}

TEST(ValueEquality, LargeIntegersAreNotRoundedToReals) {
  EXPECT_FALSE(Value(kLargest) == Value(0x1p63));
  EXPECT_EQ(Value(kSmallest), Value(-0x1p63));
  EXPECT_FALSE(Value(std::int64_t{9007199254740993}) == Value(9007199254740992.0));
  EXPECT_FALSE(Value(0) == Value(std::nan("")));
}

TEST(ValueEquality, OtherValuesMustBeOfOneKind) {
  EXPECT_EQ(Value("a"), Value("a"));
  EXPECT_FALSE(Value("a") == Value("A"));
  EXPECT_FALSE(Value("1") == Value(1));
  EXPECT_FALSE(Value(1) == Value("1"));
  EXPECT_EQ(Value(Data{"a"}), Value(Data{"a"}));
  EXPECT_FALSE(Value(Data{"a"}) == Value("a"));
  EXPECT_EQ(Value(Date{1}), Value(Date{1}));
  EXPECT_FALSE(Value(Date{1}) == Value(1));
  EXPECT_EQ(Value(Array{1, "a"}), Value(Array{1.0, "a"}));
  EXPECT_FALSE(Value(Array{1, 2}) == Value(Array{2, 1}));
  EXPECT_FALSE(Value(Array{}) == Value(Dictionary{}));
}

TEST(IntegerReading, ReadsAsIntegerValueDoes) {
  EXPECT_EQ(integerReading("  -42nd"), -42);
  EXPECT_EQ(integerReading(std::string_view()), 0);
}

TEST(DescribeDate, IsInUTCWithTheZoneOffset) {
  EXPECT_EQ(describeDate(Date{0}), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(describeDate(Date{1795226427000000}), "2026-11-21 02:00:27 +0000");
}

TEST(DescribeDate, FractionsOfASecondAreRoundedDownAlsoBefore1970) {
  EXPECT_EQ(describeDate(Date{999999}), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(describeDate(Date{-1}), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(describeDate(Date{-1000000}), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(describeDate(Date{-1000001}), "1969-12-31 23:59:58 +0000");
}

TEST(DescribeDate, TheFarthestDatesAreStillDates) {
  EXPECT_EQ(describeDate(Date{kLargest}), "294247-01-10 04:00:54 +0000");
}

TEST(StringsOf, TakesStringsAndNumbersAndLeavesTheRest) {
  EXPECT_THAT(stringsOf(Array{"a", 1, true, Data{"x"}, Array{"b"}, Dictionary{}, Date{}, "c"}),
              ElementsAre("a", "1", "1", "c"));
  EXPECT_THAT(stringsOf(Array{}), ElementsAre());
}

TEST(ArrayOf, HoldsTheStringsInOrder) {
  EXPECT_EQ(Value(arrayOf({"b", "a"})), Value(Array{"b", "a"}));
  EXPECT_TRUE(arrayOf({}).empty());
}

}  // namespace
}  // namespace tessard
