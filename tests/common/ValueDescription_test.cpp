#include <gtest/gtest.h>

#include "common/Value.h"

namespace tessard {
namespace {

TEST(Description, AStringByItselfIsShownAsItIs) {
  EXPECT_EQ(Value("plain").description(), "plain");
  EXPECT_EQ(Value("two words, \"quoted\"\n").description(), "two words, \"quoted\"\n");
  EXPECT_EQ(Value("").description(), "");
}

TEST(Description, NumbersAreDigitsAndBooleansOneOrZero) {
  EXPECT_EQ(Value(5218).description(), "5218");
  EXPECT_EQ(Value(-1).description(), "-1");
  EXPECT_EQ(Value(0.5).description(), "0.5");
  EXPECT_EQ(Value(true).description(), "1");
  EXPECT_EQ(Value(false).description(), "0");
}

TEST(Description, ADateIsInUTC) {
  EXPECT_EQ(Value(Date{1795226427000000}).description(), "2026-11-21 02:00:27 +0000");
}

TEST(Description, DataIsHexadecimalInGroupsOfFourBytes) {
  EXPECT_EQ(Value(Data{""}).description(), "<>");
  EXPECT_EQ(Value(Data{std::string("\x00\x01\xfe\xff", 4)}).description(), "<0001feff>");
  EXPECT_EQ(Value(Data{"abcdefghi"}).description(), "<61626364 65666768 69>");
}

TEST(Description, AnArrayHasOneElementALine) {
  EXPECT_EQ(Value(Array{"a", 2, true}).description(), "(\n    a,\n    2,\n    1\n)");
}

TEST(Description, ADictionaryHasOneEntryALineInItsOrder) {
  EXPECT_EQ(Value(Dictionary{{"zebra", "a"}, {"ant", 2}}).description(),
            "{\n    zebra = a;\n    ant = 2;\n}");
}

TEST(Description, EmptyContainersStillTakeTwoLines) {
  EXPECT_EQ(Value(Array{}).description(), "(\n)");
  EXPECT_EQ(Value(Dictionary{}).description(), "{\n}");
}

TEST(Description, NestedContainersAreIndentedByFourBlanksALevel) {
  const Value nested(Dictionary{{"list", Array{Array{"x"}, Dictionary{{"k", "v"}}}}, {"none", Array{}}});
  EXPECT_EQ(nested.description(),
            "{\n"
            "    list = (\n"
            "        (\n"
            "            x\n"
            "        ),\n"
            "        {\n"
            "            k = v;\n"
            "        }\n"
            "    );\n"
            "    none = (\n"
            "    );\n"
            "}");
}

TEST(Description, InsideContainersAllButPlainWordsIsQuoted) {
  EXPECT_EQ(Value(Array{"", "two words", "a.b", "a_b", "9to5", "/path"}).description(),
            "(\n    \"\",\n    \"two words\",\n    \"a.b\",\n    \"a_b\",\n    9to5,\n    \"/path\"\n)");
  EXPECT_EQ(Value(Dictionary{{"a key", "v"}}).description(), "{\n    \"a key\" = v;\n}");
}

TEST(Description, InsideContainersNumbersWithSignOrFractionAndDatesAreQuoted) {
  EXPECT_EQ(Value(Array{-1, 0.5, 1e300, Date{0}, Data{"a"}}).description(),
            "(\n    \"-1\",\n    \"0.5\",\n    \"1e+300\",\n    \"1970-01-01 00:00:00 +0000\",\n    <61>\n)");
}

TEST(Description, InsideContainersSpecialCharactersAreEscaped) {
  EXPECT_EQ(Value(Array{"q\"b\\n\nt\tr\r"}).description(), "(\n    \"q\\\"b\\\\n\\nt\\tr\\r\"\n)");
  EXPECT_EQ(Value(Array{"\x01\x7f"}).description(), "(\n    \"\\U0001\\U007f\"\n)");
}

TEST(Description, InsideContainersOtherScriptsAreEscapedAsUnitsOfUTF16) {
  EXPECT_EQ(Value(Array{"\xc3\xa9"}).description(), "(\n    \"\\U00e9\"\n)");
  EXPECT_EQ(Value(Array{"\xf0\x9f\x98\x80"}).description(), "(\n    \"\\Ud83d\\Ude00\"\n)");
  EXPECT_EQ(Value(Array{"\xff"}).description(), "(\n    \"\\Ufffd\"\n)");
}

}  // namespace
}  // namespace tessard
