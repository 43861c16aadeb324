// Logs that are rotated, before a query and between two.

#include "tests/logs/LogFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Rotated = LogTest;

TEST_F(Rotated, OlderFilesAreReadOnWhenTheNewestHasTooFewLines) {
  root.write(kLog + ".2", numberedLines("oldest", 2));
  root.write(kLog + ".1", numberedLines("older", 2));
  root.write(kLog, numberedLines("newest", 2));
  const auto some = read(newest(3));
  EXPECT_THAT(some.lines, ElementsAre("older 2", "newest 1", "newest 2"));
  EXPECT_EQ(some.gap, LogGap::lines);
  const auto all = read(newest(9));
  EXPECT_THAT(all.lines, ElementsAre("oldest 1", "oldest 2", "older 1", "older 2", "newest 1", "newest 2"));
  EXPECT_EQ(all.gap, LogGap::none);
  EXPECT_EQ(read(newest(6)).gap, LogGap::none);
  // Exactly a whole file: that there are more is known without a line of them.
  EXPECT_EQ(read(newest(2)).gap, LogGap::lines);
}

TEST_F(Rotated, NumbersMayBeginWithZero) {
  root.write(kLog + ".1", "oldest\n");
  root.write(kLog + ".0", "older\n");
  root.write(kLog, "newest\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("oldest", "older", "newest"));
}

TEST_F(Rotated, OtherFilesBesideTheLogAreNotRead) {
  root.write(kLog + ".3", "after a number that is missing\n");
  root.write(kLog + ".old", "x\n");
  root.write(kLog + ".1x", "x\n");
  root.write(kLog, "newest\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("newest"));
}

TEST_F(Rotated, CompressedFilesAreReadToo) {
  writeCompressed(kLog + ".2.gz", numberedLines("oldest", 2));
  root.write(kLog + ".1", "older\n");
  root.write(kLog, "newest\n");
  const auto excerpt = read(newest(9));
  EXPECT_THAT(excerpt.lines, ElementsAre("oldest 1", "oldest 2", "older", "newest"));
  EXPECT_EQ(excerpt.gap, LogGap::none);
}

TEST_F(Rotated, ACompressedFileThatUnpacksToTooMuchIsLeftOutWhichIsSaid) {
  LinuxLogReader shortSighted(root.path(), 1'000'000);
  writeCompressed(kLog + ".1.gz", std::string(1'000'001, '\n'));
  root.write(kLog, "newest\n");
  const auto excerpt = shortSighted.read(newest(9));
  ASSERT_TRUE(excerpt);
  EXPECT_THAT(excerpt.value().lines, ElementsAre("newest"));
  EXPECT_EQ(excerpt.value().gap, LogGap::search);
}

TEST_F(Rotated, AnOlderFileThatCannotBeReadIsLeftOutWhichIsSaid) {
  writeCompressed(kLog + ".1.gz", numberedLines("older", 1000));
  const std::string packed = root.read(kLog + ".1.gz");
  root.write(kLog, "newest\n");
  root.write(kLog + ".1.gz", packed.substr(0, packed.size() / 2));
  for (int round = 0; round < 2; ++round) {
    const auto excerpt = read(newest(9));
    EXPECT_THAT(excerpt.lines, ElementsAre("newest"));
    EXPECT_EQ(excerpt.gap, LogGap::unreadable);
    root.remove(kLog + ".1.gz");
    root.makeDirectory(kLog + ".1");
  }
}

TEST_F(Rotated, AFileThatARotationUnderWayShowsTwiceIsReadOnce) {
  root.write(kLog, numberedLines("line", 2));
  std::filesystem::create_hard_link(root.hostPath(kLog), root.hostPath(kLog + ".1"));
  root.write(kLog + ".2", "older\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("older", "line 1", "line 2"));
}

TEST_F(Rotated, APositionLeadsThroughTheRenamedFileIntoTheNewOne) {
  root.write(kLog, "before\n");
  const auto begin = read(newest(0));
  append("late in the old file\n");
  rotate();
  root.write(kLog, "first in the new file\n");
  const auto excerpt = read(since(begin.position));
  EXPECT_THAT(excerpt.lines, ElementsAre("late in the old file", "first in the new file"));
  EXPECT_EQ(excerpt.gap, LogGap::none);
  append("second\n");
  EXPECT_THAT(read(since(excerpt.position)).lines, ElementsAre("second"));
}

TEST_F(Rotated, APositionLeadsThroughSeveralFilesQueryByQuery) {
  root.write(kLog, "before\n");
  LogQuery query = since(read(newest(0)).position);
  query.lines = 2;
  append(numberedLines("first file", 3));
  for (const char* name : {"second file", "third file"}) {
    rotate();
    root.write(kLog, numberedLines(name, 2));
  }
  std::vector<std::string> all;
  for (bool more = true; more;) {
    const auto excerpt = read(query);
    EXPECT_EQ(excerpt.gap, LogGap::none);
    all.insert(all.end(), excerpt.lines.begin(), excerpt.lines.end());
    query.position = excerpt.position;
    more = excerpt.more;
    ASSERT_LE(all.size(), 7U);
  }
  EXPECT_THAT(all, ElementsAre("first file 1", "first file 2", "first file 3", "second file 1",
                               "second file 2", "third file 1", "third file 2"));
}

TEST_F(Rotated, APositionIsGoodWhileThereIsNoNewFileYet) {
  root.write(kLog, "before\n");
  const auto begin = read(newest(0));
  append("late\n");
  rotate();
  const auto excerpt = read(since(begin.position));
  EXPECT_THAT(excerpt.lines, ElementsAre("late"));
  EXPECT_EQ(excerpt.gap, LogGap::none);
  append("later\n", kLog + ".1");
  root.write(kLog, "new\n");
  EXPECT_THAT(read(since(excerpt.position)).lines, ElementsAre("later", "new"));
  // But nobody is shown the old lines as the newest.
  root.remove(kLog);
  EXPECT_EQ(errorOf(newest(9)), ENOENT);
}

TEST_F(Rotated, ALastLineWithoutItsEndIsGivenOnceItsFileIsAnOldOne) {
  root.write(kLog, "before\n");
  const auto begin = read(newest(0));
  append("torn");
  EXPECT_THAT(read(since(begin.position)).lines, IsEmpty());
  rotate();
  root.write(kLog, "new\n");
  EXPECT_THAT(read(since(begin.position)).lines, ElementsAre("torn", "new"));
}

TEST_F(Rotated, APositionIsFoundAgainInTheCopyOfALogThatWasEmptied) {
  root.write(kLog, numberedLines("before", 3));
  const auto begin = read(newest(0));
  append("late\n");
  copy(kLog, kLog + ".1");
  resize(kLog, 0);
  EXPECT_THAT(read(since(begin.position)).lines, ElementsAre("late"));
  // Also when the new content has grown longer than the old one was.
  append(numberedLines("new", 50));
  const auto excerpt = read(since(begin.position));
  EXPECT_THAT(excerpt.lines, SizeIs(51));
  EXPECT_EQ(excerpt.lines.front(), "late");
  EXPECT_EQ(excerpt.gap, LogGap::none);
}

TEST_F(Rotated, APositionIsFoundAgainInTheCompressedFile) {
  root.write(kLog, numberedLines("before", 3));
  const auto begin = read(newest(0));
  append("late\n");
  writeCompressed(kLog + ".1.gz", root.read(kLog));
  root.remove(kLog);
  root.write(kLog, "new\n");
  EXPECT_THAT(read(since(begin.position)).lines, ElementsAre("late", "new"));
}

TEST_F(Rotated, APositionWhoseFileIsGoneGivesTheNewFileAndSaysThatLinesMayBeLost) {
  root.write(kLog, numberedLines("before", 3));
  const auto begin = read(newest(0));
  root.remove(kLog);
  root.write(kLog, numberedLines("new", 2));
  const auto excerpt = read(since(begin.position));
  EXPECT_THAT(excerpt.lines, ElementsAre("new 1", "new 2"));
  EXPECT_EQ(excerpt.gap, LogGap::lost);
  EXPECT_EQ(read(since(excerpt.position)).gap, LogGap::none);
  root.remove(kLog);
  EXPECT_EQ(errorOf(since(begin.position)), ENOENT);
}

TEST_F(Rotated, AnEmptiedLogWithoutACopyHasLostLines) {
  root.write(kLog, numberedLines("before", 3));
  const auto begin = read(newest(0));
  resize(kLog, 0);
  append("new\n");
  EXPECT_THAT(read(since(begin.position)).lines, ElementsAre("new"));
  EXPECT_EQ(read(since(begin.position)).gap, LogGap::lost);
}

}  // namespace
}  // namespace tessard
