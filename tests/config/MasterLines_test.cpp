#include "config/MasterFileLines.h"
#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Lines {
  TestPlatform platform;
  std::unique_ptr<Master> master = Master::masterConfiguration(platform);

  int typeOf(std::string_view line) { return master->getConfigurationLineType(line); }
  std::optional<ComponentNameAndPath> parse(std::string_view line) {
    return master->parseComponentNameAndPathFromLine(line);
  }
};

TEST(LinesOfTheMasterFile, ATextIsCutAtEveryNewlineCharacter) {
  EXPECT_THAT(linesOf(""), ElementsAre(""));
  EXPECT_THAT(linesOf("a"), ElementsAre("a"));
  EXPECT_THAT(linesOf("a\n\nb\n"), ElementsAre("a", "", "b", ""));
  EXPECT_THAT(linesOf("a\r\nb\rc\vd\fe"), ElementsAre("a", "", "b", "c", "d", "e"));
  EXPECT_THAT(linesOf("a\u0085b\u2028c\u2029d\u00e9"), ElementsAre("a", "b", "c", "d\u00e9"));
}

TEST(LinesOfTheMasterFile, WordsAreTheNonEmptyPiecesBetweenSeparators) {
  EXPECT_THAT(wordsOf("", " "), IsEmpty());
  EXPECT_THAT(wordsOf("  ", " "), IsEmpty());
  EXPECT_THAT(wordsOf(" a \t b", " \t"), ElementsAre("a", "b"));
  EXPECT_THAT(wordsOf("a\tb", " "), ElementsAre("a\tb"));
}

TEST(LinesOfTheMasterFile, ANumberSignAtTheVeryBeginningMakesAComment) {
  Lines lines;
  EXPECT_EQ(lines.typeOf("#"), kLineComment);
  EXPECT_EQ(lines.typeOf("# words"), kLineComment);
  EXPECT_EQ(lines.typeOf("#sm /sm.xml"), kLineComment);
}

TEST(LinesOfTheMasterFile, ANumberSignAfterBlanksMakesNoComment) {
  Lines lines;
  EXPECT_EQ(lines.typeOf("   # word"), kLineIgnored);
  EXPECT_EQ(lines.typeOf("   #"), kLineIgnored);
  EXPECT_EQ(lines.typeOf("\t#word"), kLineIgnored);
}

TEST(LinesOfTheMasterFile, BlankLinesAndLinesOfUnknownNamesAreIgnored) {
  Lines lines;
  for (const char* line : {"", " ", "\t", "  \t ", "mu", "mu /mu.xml", "SM /sm.xml", "smx /sm.xml"}) {
    EXPECT_EQ(lines.typeOf(line), kLineIgnored) << line;
  }
}

TEST(LinesOfTheMasterFile, AKnownNameAloneIsInvalid) {
  Lines lines;
  for (const char* line : {"router", "sm", "c2s", "s2s", "  sm", "sm \t "}) {
    EXPECT_EQ(lines.typeOf(line), kLineInvalid) << line;
  }
}

TEST(LinesOfTheMasterFile, AKnownNameWithAnotherWordIsAComponentLine) {
  Lines lines;
  for (const char* line : {"sm /sm.xml", "  router /r.xml", "c2s\t/c2s.xml", "s2s /a /b", "sm ;"}) {
    EXPECT_EQ(lines.typeOf(line), kLineComponent) << line;
  }
}

TEST(LinesOfTheMasterFile, AComponentLineGivesItsFirstTwoWords) {
  Lines lines;
  EXPECT_EQ(lines.parse("sm /sm.xml"), (ComponentNameAndPath{"sm", "/sm.xml"}));
  EXPECT_EQ(lines.parse("   router      /r.xml   "), (ComponentNameAndPath{"router", "/r.xml"}));
  EXPECT_EQ(lines.parse("sm /a.xml /b.xml"), (ComponentNameAndPath{"sm", "/a.xml"}));
}

TEST(LinesOfTheMasterFile, ATrailingSemicolonCutsThePathAtItsFirst) {
  Lines lines;
  EXPECT_EQ(lines.parse("sm /sm.xml;"), (ComponentNameAndPath{"sm", "/sm.xml"}));
  EXPECT_EQ(lines.parse("sm /a;b;"), (ComponentNameAndPath{"sm", "/a"}));
  EXPECT_EQ(lines.parse("sm /a;b"), (ComponentNameAndPath{"sm", "/a;b"}));
  EXPECT_EQ(lines.parse("sm ;"), (ComponentNameAndPath{"sm", ""}));
}

TEST(LinesOfTheMasterFile, ATabDoesNotPartNameAndPathAndBothWarningsAreLogged) {
  Lines lines;
  EXPECT_EQ(lines.typeOf("sm\t/sm.xml"), kLineComponent);
  EXPECT_EQ(lines.parse("sm\t/sm.xml"), std::nullopt);
  EXPECT_THAT(lines.platform.log.lines(),
              ElementsAre("tessard_notification[W]: Malformed or invalid line found in jabberd.cfg (ignored)",
                          "tessard_notification[W]: Offending line: \"sm\t/sm.xml\""));
}

TEST(LinesOfTheMasterFile, TextsThatALineCannotHoldAreKnown) {
  for (const char* text : {" ", "a b", "a\nb", "a\tb", "\x7f", "a\u2028", "\u0085", "\x01"}) {
    EXPECT_TRUE(breaksLine(text)) << text;
  }
  EXPECT_TRUE(breaksLine(std::string_view("a\0", 2)));
  EXPECT_FALSE(breaksLine("b\u00fccher.example"));
  EXPECT_FALSE(breaksLine(""));
}

}  // namespace
}  // namespace tessard
