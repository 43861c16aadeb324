#include "platform/UnistringUnicode.h"

#include <gtest/gtest.h>

#include <clocale>

namespace tessard {
namespace {

TEST(UnistringUnicode, LettersOfEveryScriptAreAlphanumeric) {
  UnistringUnicode unicode;
  for (const char32_t point : {U'a', U'Z', U'é', U'ß', U'Ω', U'я', U'א', U'ع', U'中', U'ひ', U'ʰ', U'ǅ'}) {
    EXPECT_TRUE(unicode.isAlphanumeric(point)) << static_cast<unsigned long>(point);
  }
  EXPECT_TRUE(unicode.isAlphanumeric(U'\U00020000')) << "a letter beyond the first plane";
}

TEST(UnistringUnicode, MarksAndAllKindsOfNumbersAreAlphanumeric) {
  UnistringUnicode unicode;
  EXPECT_TRUE(unicode.isAlphanumeric(0x0301)) << "combining acute, Mn";
  EXPECT_TRUE(unicode.isAlphanumeric(0x0903)) << "spacing mark, Mc";
  EXPECT_TRUE(unicode.isAlphanumeric(0x20DD)) << "enclosing circle, Me";
  EXPECT_TRUE(unicode.isAlphanumeric(U'7'));
  EXPECT_TRUE(unicode.isAlphanumeric(U'٣')) << "Arabic-Indic digit, Nd";
  EXPECT_TRUE(unicode.isAlphanumeric(U'Ⅷ')) << "Roman numeral, Nl";
  EXPECT_TRUE(unicode.isAlphanumeric(U'½')) << "fraction, No";
}

TEST(UnistringUnicode, PunctuationSymbolsBlanksAndControlsAreNot) {
  UnistringUnicode unicode;
  for (const char32_t point : {U'-', U'.', U'_', U' ', U'\t', U'\n', U'\0', U'@', U'+', U'€', U'\u00A0',
                               U'\u200D', U'\uFFFD', U'\U0001F600', U'\U0010FFFF'}) {
    EXPECT_FALSE(unicode.isAlphanumeric(point)) << static_cast<unsigned long>(point);
  }
  EXPECT_FALSE(unicode.isAlphanumeric(0xD800)) << "a surrogate";
  EXPECT_FALSE(unicode.isAlphanumeric(0x110000)) << "beyond Unicode";
}

TEST(UnistringUnicode, LowercasesTextOfEveryScript) {
  UnistringUnicode unicode;
  EXPECT_EQ(unicode.lowercase("Chat.EXAMPLE.com-7"), "chat.example.com-7");
  EXPECT_EQ(unicode.lowercase("ÄÖÜ ЯЩ"), "äöü ящ");
  EXPECT_EQ(unicode.lowercase("\U00010400"), "\U00010428") << "Deseret, beyond the first plane";
  EXPECT_EQ(unicode.lowercase(""), "");
}

TEST(UnistringUnicode, LowercaseKnowsMappingsThatChangeTheLengthOrDependOnTheirPlace) {
  UnistringUnicode unicode;
  EXPECT_EQ(unicode.lowercase("\u0130"), "i\u0307") << "capital I with a dot becomes two characters";
  EXPECT_EQ(unicode.lowercase("ΟΔΟΣ ΣΟΦΟΣ"), "οδος σοφος");
  EXPECT_EQ(unicode.lowercase("E\u0301"), "e\u0301") << "nothing is recomposed";
}

TEST(UnistringUnicode, LowercaseTakesNoNoticeOfTheLocale) {
  UnistringUnicode unicode;
  ::setlocale(LC_ALL, "tr_TR.UTF-8");
  EXPECT_EQ(unicode.lowercase("TITLE I"), "title i");
  ::setlocale(LC_ALL, "C");
  EXPECT_EQ(unicode.lowercase("TITLE Ä"), "title ä");
}

TEST(UnistringUnicode, BytesThatAreNotUtf8BecomeReplacementCharacters) {
  UnistringUnicode unicode;
  EXPECT_EQ(unicode.lowercase("A\xFFZ"), "a\uFFFDz");
  EXPECT_EQ(unicode.lowercase(std::string_view("A\0B", 3)), std::string("a\0b", 3));
}

}  // namespace
}  // namespace tessard
