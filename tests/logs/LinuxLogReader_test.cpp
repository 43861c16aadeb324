// What is read of one file.

#include "tests/logs/LogFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using NewestLines = LogTest;

TEST_F(NewestLines, ComeOldestFirstAndSayThatThereAreOlderOnes) {
  root.write(kLog, numberedLines("line", 5));
  const auto excerpt = read(newest(3));
  EXPECT_THAT(excerpt.lines, ElementsAre("line 3", "line 4", "line 5"));
  EXPECT_EQ(excerpt.gap, LogGap::lines);
  EXPECT_FALSE(excerpt.more);
}

TEST_F(NewestLines, AreAllOfAShortLog) {
  root.write(kLog, numberedLines("line", 3));
  for (const std::uint64_t count : {3, 4}) {
    const auto excerpt = read(newest(count));
    EXPECT_THAT(excerpt.lines, SizeIs(3));
    EXPECT_EQ(excerpt.gap, LogGap::none);
  }
}

TEST_F(NewestLines, OfAnEmptyLogAreNone) {
  root.write(kLog, "");
  EXPECT_THAT(read(newest(3)).lines, IsEmpty());
  EXPECT_EQ(read(newest(3)).gap, LogGap::none);
}

TEST_F(NewestLines, MayBeNoneForThePositionAlone) {
  root.write(kLog, numberedLines("old", 3));
  const auto excerpt = read(newest(0));
  EXPECT_THAT(excerpt.lines, IsEmpty());
  EXPECT_EQ(excerpt.gap, LogGap::lines);
  append("new\n");
  EXPECT_THAT(read(since(excerpt.position)).lines, ElementsAre("new"));
}

TEST_F(NewestLines, AreThoseThatFitIntoTheBytes) {
  root.write(kLog, "aaaa\nbbbb\ncccc\n");
  LogQuery query{.path = kLog, .lines = {}, .bytes = 10};
  EXPECT_THAT(read(query).lines, ElementsAre("bbbb", "cccc"));
  EXPECT_EQ(read(query).gap, LogGap::bytes);
  query.bytes = 9;
  EXPECT_THAT(read(query).lines, ElementsAre("cccc"));
  query.bytes = 15;
  EXPECT_THAT(read(query).lines, SizeIs(3));
  EXPECT_EQ(read(query).gap, LogGap::none);
  query.bytes = 4;
  EXPECT_THAT(read(query).lines, IsEmpty());
  EXPECT_EQ(read(query).gap, LogGap::bytes);
}

TEST_F(NewestLines, HoldEveryFilter) {
  root.write(kLog, "one red\ntwo blue\nthree red big\nfour big\n");
  EXPECT_THAT(read(newest(9, {"red"})).lines, ElementsAre("one red", "three red big"));
  EXPECT_THAT(read(newest(9, {"red", "big"})).lines, ElementsAre("three red big"));
  EXPECT_THAT(read(newest(9, {"RED"})).lines, IsEmpty());
  EXPECT_THAT(read(newest(9, {""})).lines, SizeIs(4));
  // Across two lines there is nothing to be found.
  EXPECT_THAT(read(newest(9, {"red\ntwo"})).lines, IsEmpty());
}

TEST_F(NewestLines, OfASenderAloneCarryItsNumber) {
  root.write(kLog, "x one[12]: a\nx two[123]: b\nx three[1]: about [12] d\n");
  LogQuery query = newest(9);
  query.sender = 12;
  EXPECT_THAT(read(query).lines, ElementsAre("x one[12]: a"));
}

TEST_F(NewestLines, IncludeALastOneWithoutItsEnd) {
  root.write(kLog, "first\nlast");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("first", "last"));
  EXPECT_THAT(read(newest(1)).lines, ElementsAre("last"));
}

TEST_F(NewestLines, IncludeEmptyOnes) {
  root.write(kLog, "\n\nx\n\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("", "", "x", ""));
}

TEST_F(NewestLines, AreWholeWhereverBlocksEnd) {
  // Lines of many lengths, so that they straddle the blocks that are read in every way.
  std::vector<std::string> lines;
  std::string text;
  for (int number = 0; number < 3000; ++number) {
    lines.push_back(std::to_string(number) + std::string(static_cast<std::size_t>(number * 7 % 301), 'x'));
    text += lines.back() + "\n";
  }
  root.write(kLog, text);
  EXPECT_EQ(read(newest(lines.size())).lines, lines);
  const auto begin = read(since(read(newest(0)).position));
  EXPECT_THAT(begin.lines, IsEmpty());
}

TEST_F(NewestLines, AreFoundInOneGigabyteWithFewReads) {
  root.write(kLog, numberedLines("first", 3));
  resize(kLog, std::uint64_t{1} << 30);
  append("\n" + numberedLines("last", 2000));
  const std::uint64_t before = bytesReadByProcess();
  EXPECT_THAT(read(newest(100)).lines, SizeIs(100));
  EXPECT_LT(bytesReadByProcess() - before, 200'000U);
}

TEST_F(NewestLines, AreLookedForInALimitedPartOfTheLogWhichIsSaid) {
  LinuxLogReader shortSighted(root.path(), 1'000'000);
  root.write(kLog, "needle\n" + numberedLines(std::string(90, 'h'), 20'000) + "needle again\n");
  const std::uint64_t before = bytesReadByProcess();
  const auto excerpt = shortSighted.read(newest(2, {"needle"}));
  ASSERT_TRUE(excerpt);
  EXPECT_THAT(excerpt.value().lines, ElementsAre("needle again"));
  EXPECT_EQ(excerpt.value().gap, LogGap::search);
  EXPECT_LT(bytesReadByProcess() - before, 1'100'000U);
  // Without the limit the older one is found.
  EXPECT_THAT(read(newest(2, {"needle"})).lines, SizeIs(2));
}

TEST_F(NewestLines, ThatAreOneEndlessLineAreNotRead) {
  LinuxLogReader shortSighted(root.path(), 1'000'000);
  root.write(kLog, "begin");
  resize(kLog, std::uint64_t{1} << 30);
  const auto excerpt = shortSighted.read(newest(2));
  ASSERT_TRUE(excerpt);
  EXPECT_THAT(excerpt.value().lines, IsEmpty());
  EXPECT_EQ(excerpt.value().gap, LogGap::search);
}

TEST_F(NewestLines, AreCutWhenTheyAreVeryLong) {
  root.write(kLog, "short\n" + std::string(50'000, 'a') + "end\nshort\n");
  const auto lines = read(newest(9)).lines;
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[1], std::string(16 * 1024, 'a') + "\u2026");
  // What is not shown is not searched either.
  EXPECT_THAT(read(newest(9, {"end"})).lines, IsEmpty());
  // Nothing of a character that the cut went through.
  root.write(kLog, "a" + std::string(16 * 1024 - 2, 'a') + "\u00fcbc\n");
  EXPECT_EQ(read(newest(9)).lines[0], std::string(16 * 1024 - 1, 'a') + "\u2026");
}

TEST_F(NewestLines, AreTextWhateverTheBytesAre) {
  root.write(kLog,
             std::string("gr\u00fcn\nbad \xff\xc3 byte\n\x1b[2J\x7f tab\t end\r\na\0b\n\u009b2J\n", 43));
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("gr\u00fcn", "bad \ufffd\ufffd byte",
                                                 "\u241b[2J\u2421 tab\t end", "a\u2400b", "\ufffd2J"));
}

TEST_F(NewestLines, BeginAfterTheHoleThatEmptyingALogLeaves) {
  root.write(kLog, "");
  resize(kLog, 5000);
  append("written on\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("written on"));
}

TEST_F(NewestLines, OfALogThatIsNotThereAreAnError) {
  EXPECT_EQ(errorOf(newest(1)), ENOENT);
  root.makeDirectory("/var/log/service");
  EXPECT_EQ(errorOf(newest(1)), ENOENT);
}

TEST_F(NewestLines, NeedARootThatIsThere) {
  LinuxLogReader nowhere(root.path() + "/none");
  const auto excerpt = nowhere.read(newest(1));
  ASSERT_FALSE(excerpt);
  EXPECT_EQ(excerpt.error().code(), ENOENT);
}

TEST_F(NewestLines, OfTheSystemLogOfAScratchRootDoNotComeFromTheJournal) {
  EXPECT_EQ(errorOf({.path = "/var/log/system.log", .lines = 1, .bytes = kPlenty}), ENOENT);
}

using LinesSince = LogTest;

TEST_F(LinesSince, APositionAreThoseThatWereWrittenLater) {
  root.write(kLog, numberedLines("old", 3));
  const auto first = read(newest(1));
  EXPECT_THAT(read(since(first.position)).lines, IsEmpty());
  append(numberedLines("new", 2));
  const auto second = read(since(first.position));
  EXPECT_THAT(second.lines, ElementsAre("new 1", "new 2"));
  EXPECT_EQ(second.gap, LogGap::none);
  EXPECT_FALSE(second.more);
  EXPECT_THAT(read(since(second.position)).lines, IsEmpty());
}

TEST_F(LinesSince, ThatDoNotFitWaitForTheNextQuery) {
  root.write(kLog, "");
  LogQuery query = since(read(newest(0)).position);
  append(numberedLines("line", 5));
  query.lines = 2;
  std::vector<std::string> all;
  for (int round = 0; round < 3; ++round) {
    const auto excerpt = read(query);
    EXPECT_EQ(excerpt.more, round < 2);
    EXPECT_EQ(excerpt.gap, LogGap::none);
    all.insert(all.end(), excerpt.lines.begin(), excerpt.lines.end());
    query.position = excerpt.position;
  }
  EXPECT_THAT(all, ElementsAre("line 1", "line 2", "line 3", "line 4", "line 5"));
}

TEST_F(LinesSince, AreLimitedInBytesButForTheFirst) {
  root.write(kLog, "");
  LogQuery query = since(read(newest(0)).position);
  append("a long line\nb\nc\n");
  query.bytes = 4;
  const auto first = read(query);
  EXPECT_THAT(first.lines, ElementsAre("a long line"));
  EXPECT_TRUE(first.more);
  query.position = first.position;
  EXPECT_THAT(read(query).lines, ElementsAre("b", "c"));
}

TEST_F(LinesSince, HoldEveryFilterAndThoseWithoutAreNotReadAgain) {
  root.write(kLog, "");
  LogQuery query = since(read(newest(0)).position);
  query.filters = {"red"};
  append("red 1\nblue\nred 2\nblue\n");
  const auto excerpt = read(query);
  EXPECT_THAT(excerpt.lines, ElementsAre("red 1", "red 2"));
  EXPECT_EQ(excerpt.position, read(newest(0)).position);
}

TEST_F(LinesSince, AreLookedForInALimitedPartAtOnceAndFoundInTheEnd) {
  LinuxLogReader shortSighted(root.path(), 200'000);
  root.write(kLog, "");
  LogQuery query = since(read(newest(0)).position);
  query.filters = {"needle"};
  append(numberedLines(std::string(90, 'h'), 20'000) + "needle\n");
  std::vector<std::string> all;
  int rounds = 0;
  for (bool more = true; more; ++rounds) {
    const auto excerpt = shortSighted.read(query);
    ASSERT_TRUE(excerpt);
    ASSERT_LT(rounds, 50);
    more = excerpt.value().more;
    all.insert(all.end(), excerpt.value().lines.begin(), excerpt.value().lines.end());
    query.position = excerpt.value().position;
  }
  EXPECT_GT(rounds, 5);
  EXPECT_THAT(all, ElementsAre("needle"));
}

TEST_F(LinesSince, LeaveALineThatHasNoEndYetToALaterQuery) {
  root.write(kLog, "");
  const auto begin = read(newest(0));
  append("whole\nha");
  const auto first = read(since(begin.position));
  EXPECT_THAT(first.lines, ElementsAre("whole"));
  EXPECT_FALSE(first.more);
  append("lf\n");
  EXPECT_THAT(read(since(first.position)).lines, ElementsAre("half"));
}

TEST_F(LinesSince, GiveTheRestOfALineWhoseBeginningWasGivenAlready) {
  root.write(kLog, "ha");
  const auto begin = read(newest(1));
  EXPECT_THAT(begin.lines, ElementsAre("ha"));
  append("lf\n");
  EXPECT_THAT(read(since(begin.position)).lines, ElementsAre("lf"));
}

TEST_F(LinesSince, GetPastALineThatIsLongerThanAQueryLooksThrough) {
  LinuxLogReader shortSighted(root.path(), 3'000'000);
  root.write(kLog, "");
  LogQuery query = since(read(newest(0)).position);
  append(std::string(10'000'000, 'a') + "\nafter\n");
  std::vector<std::string> all;
  int rounds = 0;
  for (bool more = true; more; ++rounds) {
    const auto excerpt = shortSighted.read(query);
    ASSERT_TRUE(excerpt);
    ASSERT_LT(rounds, 20);
    more = excerpt.value().more;
    all.insert(all.end(), excerpt.value().lines.begin(), excerpt.value().lines.end());
    query.position = excerpt.value().position;
  }
  EXPECT_EQ(all.back(), "after");
}

TEST_F(LinesSince, APositionThatNoAnswerGaveAreAnError) {
  root.write(kLog, "line\n");
  const std::string sound = read(newest(0)).position;
  for (const std::string& position : std::vector<std::string>{
           "", "x", "0", "file:", "file:1:2:3:4", sound + ":1", sound + "x", "file:1:2:-3:4:5",
           "file:1:2:99999999999999999999:4:5", "fil" + sound.substr(4)}) {
    EXPECT_EQ(errorOf(since(position)), ESPIPE) << position;
  }
}

}  // namespace
}  // namespace tessard
