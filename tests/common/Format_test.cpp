#include "common/Format.h"

#include <gtest/gtest.h>

#include <limits>

namespace tessard {
namespace {

TEST(Fill, TextWithoutPlaceholdersStaysAsItIs) {
  EXPECT_EQ(fill("plain", {}), "plain");
  EXPECT_EQ(fill("", {"unused"}), "");
}

TEST(Fill, AnAtSignTakesTextsOfEveryForm) {
  const std::string text = "string";
  EXPECT_EQ(
      fill("%@ %@ %@ %@", {"literal", text, std::string_view("view"), std::optional<std::string>("some")}),
      "literal string view some");
}

TEST(Fill, AnSTakesTextsToo) {
  EXPECT_EQ(fill("<%s>", {"text"}), "<text>");
}

TEST(Fill, AnAtSignTakesTheDescriptionOfAValue) {
  const Value list(Array{"a", "b"});
  EXPECT_EQ(fill("%@.", {list}), "(\n    a,\n    b\n).");
  EXPECT_EQ(fill("%@", {&list}), "(\n    a,\n    b\n)");
  EXPECT_EQ(fill("%@", {Value(true)}), "1");
}

TEST(Fill, NothingIsShownAsNull) {
  const Value* noValue = nullptr;
  const char* noText = nullptr;
  EXPECT_EQ(fill("%@ %@ %@ %@", {std::nullopt, std::optional<std::string>(), noValue, noText}),
            "(null) (null) (null) (null)");
  EXPECT_EQ(fill("%s", {std::nullopt}), "(null)");
}

TEST(Fill, NumbersAreDecimalUnderEveryLetter) {
  EXPECT_EQ(fill("%d %ld %u %lu %@", {-5, 10L, 7U, std::numeric_limits<std::uint64_t>::max(), 3}),
            "-5 10 7 18446744073709551615 3");
  EXPECT_EQ(fill("%ld.%ld.%ld", {10, 7, 0}), "10.7.0");
}

TEST(Fill, AnOIsOctal) {
  EXPECT_EQ(fill("%o", {0750}), "750");
  EXPECT_EQ(fill("%o", {0}), "0");
  EXPECT_EQ(fill("%o", {Value(8)}), "10");
}

TEST(Fill, ADoubledPercentSignIsOneAndTakesNoArgument) {
  EXPECT_EQ(fill("100%% %@", {"sure"}), "100% sure");
  EXPECT_EQ(fill("%%@", {"unused"}), "%@");
}

TEST(Fill, APlaceholderWithoutAnArgumentStays) {
  EXPECT_EQ(fill("%@ and %@", {"one"}), "one and %@");
  EXPECT_EQ(fill("%ld", {}), "%ld");
  EXPECT_EQ(fill("%d%%", {}), "%d%");
}

TEST(Fill, WhatIsNoPlaceholderStaysAndTakesNoArgument) {
  EXPECT_EQ(fill("%x %lx %@", {"a"}), "%x %lx a");
  EXPECT_EQ(fill("50%", {"a"}), "50%");
  EXPECT_EQ(fill("%l", {"a"}), "%l");
  EXPECT_EQ(fill("%", {}), "%");
}

TEST(Fill, ArgumentsLeftOverAreDropped) {
  EXPECT_EQ(fill("%@", {"a", "b"}), "a");
}

TEST(Fill, PlaceholdersInsideArgumentsAreNotFilled) {
  EXPECT_EQ(fill("%@ %@", {"%@", "%d"}), "%@ %d");
}

}  // namespace
}  // namespace tessard
