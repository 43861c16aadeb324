#include "common/StringEncodings.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

using namespace std::string_literals;

TEST(StringEncodings, Utf8StandsAsItIsAndMalformedUtf8IsNoText) {
  EXPECT_EQ(decodeString("grün \u4f60", StringEncoding::utf8), "grün \u4f60");
  EXPECT_EQ(decodeString("\xC0\xAF", StringEncoding::utf8), std::nullopt) << "a longer form than needed";
  EXPECT_EQ(decodeString("cut \xE4\xBD", StringEncoding::utf8), std::nullopt);
}

TEST(StringEncodings, AsciiHasNoByteAbove127) {
  EXPECT_EQ(decodeString("plain\x7F", StringEncoding::ascii), "plain\x7F");
  EXPECT_EQ(decodeString("\x80", StringEncoding::ascii), std::nullopt);
}

TEST(StringEncodings, EveryByteIsALatin1Character) {
  EXPECT_EQ(decodeString("gr\xFCn", StringEncoding::isoLatin1), "grün");
  EXPECT_EQ(decodeString("\x80\xFF", StringEncoding::isoLatin1), "\u0080\u00FF");
}

TEST(StringEncodings, Utf16BeginsWithTheHighByteUnlessAMarkSaysOtherwise) {
  EXPECT_EQ(decodeString("\0a\x4F\x60"s, StringEncoding::utf16), "a\u4f60");
  EXPECT_EQ(decodeString("\xFE\xFF\0a"s, StringEncoding::utf16), "a");
  EXPECT_EQ(decodeString("\xFF\xFE"
                         "a\0"s,
                         StringEncoding::utf16),
            "a");
}

TEST(StringEncodings, TwoSurrogatesOfUtf16AreOneCharacterAndOneAloneIsNone) {
  EXPECT_EQ(decodeString("\xD8\x3D\xDE\x00"s, StringEncoding::utf16), "\U0001F600");
  EXPECT_EQ(decodeString("\xD8\x3D"s, StringEncoding::utf16), std::nullopt) << "at the end";
  EXPECT_EQ(decodeString("\xD8\x3D\0a"s, StringEncoding::utf16), std::nullopt) << "before a letter";
  EXPECT_EQ(decodeString("\xDE\x00\xD8\x3D"s, StringEncoding::utf16), std::nullopt) << "the wrong way round";
}

TEST(StringEncodings, Utf32HoldsCodePointsOnly) {
  EXPECT_EQ(decodeString("\0\0\0a\0\1\xF6\0"s, StringEncoding::utf32), "a\U0001F600");
  EXPECT_EQ(decodeString("\0\0\xFE\xFF\0\0\0a"s, StringEncoding::utf32), "a");
  EXPECT_EQ(decodeString("\xFF\xFE\0\0a\0\0\0"s, StringEncoding::utf32), "a");
  EXPECT_EQ(decodeString("\0\0\xD8\0"s, StringEncoding::utf32), std::nullopt) << "a surrogate";
  EXPECT_EQ(decodeString("\0\x11\0\0"s, StringEncoding::utf32), std::nullopt) << "beyond the last one";
}

TEST(StringEncodings, ACutOffUnitIsNoText) {
  EXPECT_EQ(decodeString("\0a\0"s, StringEncoding::utf16), std::nullopt);
  EXPECT_EQ(decodeString("\0\0\0a\0\0"s, StringEncoding::utf32), std::nullopt);
}

TEST(StringEncodings, NoBytesAreAnEmptyTextAndANulIsACharacter) {
  for (const auto encoding : {StringEncoding::utf8, StringEncoding::ascii, StringEncoding::isoLatin1,
                              StringEncoding::utf16, StringEncoding::utf32}) {
    EXPECT_EQ(decodeString("", encoding), "");
  }
  EXPECT_EQ(decodeString("a\0b"s, StringEncoding::ascii), "a\0b"s);
  EXPECT_EQ(decodeString("\0a\0\0\0b"s, StringEncoding::utf16), "a\0b"s);
}

}  // namespace
}  // namespace tessard
