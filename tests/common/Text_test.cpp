#include "common/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/FileSystem.h"

namespace tessard {
namespace {

using testing::ElementsAre;

TEST(ComponentsOf, SplitsAtEverySeparatorAndKeepsEmptyPieces) {
  EXPECT_THAT(componentsOf("a,b,c", ','), ElementsAre("a", "b", "c"));
  EXPECT_THAT(componentsOf(",a,,b,", ','), ElementsAre("", "a", "", "b", ""));
}

TEST(ComponentsOf, GivesAtLeastOnePiece) {
  EXPECT_THAT(componentsOf("", ','), ElementsAre(""));
  EXPECT_THAT(componentsOf("a b", ','), ElementsAre("a b"));
}

TEST(JoinedWith, PutsTheSeparatorBetweenPiecesOnly) {
  EXPECT_EQ(joinedWith({"a", "", "b"}, ", "), "a, , b");
  EXPECT_EQ(joinedWith({"a"}, ","), "a");
  EXPECT_EQ(joinedWith({}, ","), "");
}

TEST(ReplacingAll, ReplacesEveryOccurrenceOnce) {
  EXPECT_EQ(replacingAll("@H@ and @H@", "@H@", "host"), "host and host");
  EXPECT_EQ(replacingAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replacingAll("a", "a", "aa"), "aa");
  EXPECT_EQ(replacingAll("abc", "b", ""), "ac");
}

TEST(ReplacingAll, LeavesTextWithoutOccurrencesAndAnEmptySearchAlone) {
  EXPECT_EQ(replacingAll("abc", "x", "y"), "abc");
  EXPECT_EQ(replacingAll("abc", "", "y"), "abc");
  EXPECT_EQ(replacingAll("", "a", "y"), "");
}

TEST(Trimmed, TakesTheCharactersOffBothEndsOnly) {
  EXPECT_EQ(trimmed(" \t a b \n", " \t\n"), "a b");
  EXPECT_EQ(trimmed("abc", " "), "abc");
  EXPECT_EQ(trimmed("  ", " "), "");
  EXPECT_EQ(trimmed("", " "), "");
}

TEST(DirectoryOf, IsAllBeforeTheLastSlash) {
  EXPECT_EQ(directoryOf("/a/b/c"), "/a/b");
  EXPECT_EQ(directoryOf("/a"), "/");
  EXPECT_EQ(directoryOf("a"), "");
  EXPECT_EQ(directoryOf("/a/"), "/a");
}

TEST(LastPathComponent, IsAllBehindTheLastSlash) {
  EXPECT_EQ(lastPathComponent("/a/b/c"), "c");
  EXPECT_EQ(lastPathComponent("c"), "c");
  EXPECT_EQ(lastPathComponent("/a/"), "");
}

TEST(AsciiLowercase, LeavesEverythingButTheLettersOfAsciiAsItIs) {
  EXPECT_EQ(asciiLowercase("AZaz09@[`{ \xc3\x84"), "azaz09@[`{ \xc3\x84");
  EXPECT_EQ(asciiLowercase(""), "");
  EXPECT_EQ(asciiLowercase('Q'), 'q');
}

}  // namespace
}  // namespace tessard
