#include "common/Utf8.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

struct MalformedCase {
  const char* why;
  std::string bytes;
  std::size_t replacements;
};

// Each byte that starts no well-formed sequence is replaced by itself.
const MalformedCase kMalformed[] = {
    {"a continuation byte alone", "\x80", 1},
    {"the last continuation byte alone", "\xbf", 1},
    {"two bytes where one would do", "\xc0\x80", 2},
    {"the largest such", "\xc1\xbf", 2},
    {"two bytes cut short", "\xc3", 1},
    {"two bytes with a letter as the second", "\xc3(", 1},
    {"three bytes where two would do", "\xe0\x9f\xbf", 3},
    {"three bytes cut short", "\xe2\x82", 2},
    {"three bytes with a letter as the third", "\xe2\x82(", 2},
    {"the first surrogate", "\xed\xa0\x80", 3},
    {"the last surrogate", "\xed\xbf\xbf", 3},
    {"four bytes where three would do", "\xf0\x8f\xbf\xbf", 4},
    {"four bytes cut short", "\xf0\x9f\x98", 3},
    {"the first point past the last", "\xf4\x90\x80\x80", 4},
    {"a first byte past the last", "\xf5\x80\x80\x80", 4},
    {"a byte that is never used", "\xff", 1},
    {"five bytes", "\xf8\x88\x80\x80\x80", 5},
};

TEST(Utf8, MalformedBytesAreRefused) {
  for (const MalformedCase& malformed : kMalformed) {
    EXPECT_FALSE(isUtf8(malformed.bytes)) << malformed.why;
    EXPECT_FALSE(isUtf8("ok " + malformed.bytes + " ok")) << malformed.why;
    EXPECT_FALSE(isXmlText(malformed.bytes)) << malformed.why;
  }
}

TEST(Utf8, MalformedBytesAreDecodedAsReplacementCharacters) {
  for (const MalformedCase& malformed : kMalformed) {
    std::size_t replaced = 0;
    for (const char32_t point : decodeUtf8("a" + malformed.bytes + "z")) replaced += point == 0xfffd;
    EXPECT_EQ(replaced, malformed.replacements) << malformed.why;
    EXPECT_EQ(decodeUtf8("a" + malformed.bytes + "z").front(), U'a') << malformed.why;
    EXPECT_EQ(decodeUtf8("a" + malformed.bytes + "z").back(), U'z') << malformed.why;
  }
}

struct PointCase {
  char32_t point;
  std::string bytes;
};

const PointCase kPoints[] = {
    {0x01, "\x01"},
    {0x7f, "\x7f"},
    {0x80, "\xc2\x80"},
    {0x7ff, "\xdf\xbf"},
    {0x800, "\xe0\xa0\x80"},
    {0xd7ff, "\xed\x9f\xbf"},
    {0xe000, "\xee\x80\x80"},
    {0xffff, "\xef\xbf\xbf"},
    {0x10000, "\xf0\x90\x80\x80"},
    {0x10ffff, "\xf4\x8f\xbf\xbf"},
};

TEST(Utf8, TheFirstAndLastPointOfEveryLengthGoBothWays) {
  for (const PointCase& known : kPoints) {
    std::string written;
    appendUtf8(written, known.point);
    EXPECT_EQ(written, known.bytes);
    EXPECT_TRUE(isUtf8(known.bytes));
    EXPECT_EQ(decodeUtf8(known.bytes), std::u32string(1, known.point));
  }
}

TEST(Utf8, NothingAndANulByteAreWellFormed) {
  EXPECT_TRUE(isUtf8(""));
  EXPECT_TRUE(isUtf8(std::string_view("\0", 1)));
  EXPECT_TRUE(decodeUtf8("").empty());
}

TEST(XmlText, MayHoldTabsAndLineEndsButNoOtherControlCharacter) {
  EXPECT_TRUE(isXmlText(""));
  EXPECT_TRUE(isXmlText("a\tb\nc\rd"));
  EXPECT_TRUE(isXmlText("\x7f"));
  for (char control = 0; control < 0x20; ++control) {
    const bool allowed = control == '\t' || control == '\n' || control == '\r';
    EXPECT_EQ(isXmlText(std::string(1, control)), allowed) << static_cast<int>(control);
  }
}

TEST(XmlText, MayNotHoldTheTwoLastPointsOfTheFirstPlane) {
  EXPECT_TRUE(isXmlText("\xef\xbf\xbd"));
  EXPECT_FALSE(isXmlText("\xef\xbf\xbe"));
  EXPECT_FALSE(isXmlText("\xef\xbf\xbf"));
  EXPECT_TRUE(isXmlText("\xf0\x9f\x98\x80"));
}

}  // namespace
}  // namespace tessard
