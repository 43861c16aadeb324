#include "common/DurableReplace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <set>

#include "tests/support/TestPlatform.h"

namespace tessard {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kPath = "/etc/sm.xml";
constexpr const char* kTemporary = "/etc/sm.xml.tmp";
constexpr const char* kBackup = "/etc/sm.xml.bak";
const FileOwnership kOwnership{84, 0, 0600};

class DurableReplaceTest : public testing::Test {
 protected:
  TestPlatform platform;
  ScratchRoot& root = platform.root;
  FaultyFileSystem& files = platform.files;

  Replacement replace(std::string_view content = "new") {
    return replaceKeepingBackup(files, kPath, content, kOwnership);
  }

  // What is on disk for an id, and for a file that was given to 84 and group 0.
  void expectGivenAway(std::string_view path, mode_t mode) {
    const OwnerMap owners = ownersForTests();
    EXPECT_EQ(root.owner(path), owners.users.contains(84) ? owners.users.at(84) : 84);
    EXPECT_EQ(root.group(path), owners.groups.contains(0) ? owners.groups.at(0) : 0);
    EXPECT_EQ(root.mode(path), mode);
  }
};

TEST_F(DurableReplaceTest, NamesTheTemporaryAndTheBackupAfterTheFile) {
  EXPECT_EQ(temporaryPathFor(kPath), kTemporary);
  EXPECT_EQ(backupPathFor(kPath), kBackup);
  EXPECT_EQ(temporaryPathFor("/a%@b"), "/a%@b.tmp");
}

TEST_F(DurableReplaceTest, ReplacesTheFileAndKeepsThePreviousVersion) {
  root.write(kPath, "old");
  root.setMode(kPath, 0644);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(replacement.error.code(), 0);
  EXPECT_EQ(root.read(kPath), "new");
  expectGivenAway(kPath, 0600);
  EXPECT_EQ(root.read(kBackup), "old");
  EXPECT_EQ(root.mode(kBackup), 0644U);
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml", "sm.xml.bak"));
}

TEST_F(DurableReplaceTest, FlushesTheNewNameBeforeThePreviousVersionLeavesTheOtherOne) {
  root.write(kPath, "old");
  ASSERT_EQ(replace().outcome, ReplaceOutcome::replaced);
  EXPECT_THAT(files.changes(), ElementsAre("createFile /etc/sm.xml.tmp", "flush /etc/sm.xml.tmp",
                                           "exchange /etc/sm.xml.tmp /etc/sm.xml", "syncDirectory /etc",
                                           "rename /etc/sm.xml.tmp /etc/sm.xml.bak"));
}

TEST_F(DurableReplaceTest, ReplacesAStaleTemporaryAndAStaleBackup) {
  root.write(kPath, "old");
  root.write(kTemporary, "left over by a crash, and longer than the new content");
  root.setMode(kTemporary, 0666);
  root.write(kBackup, "older");
  ASSERT_EQ(replace().outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "new");
  expectGivenAway(kPath, 0600);
  EXPECT_EQ(root.read(kBackup), "old");
  EXPECT_FALSE(root.exists(kTemporary));
}

TEST_F(DurableReplaceTest, WritesThroughNoLinkThatWaitsUnderTheTemporaryName) {
  root.write(kPath, "old");
  root.write("/etc/passwd", "accounts");
  root.makeLink(kTemporary, "passwd");
  ASSERT_EQ(replace().outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(root.read("/etc/passwd"), "accounts");
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(root.hostPath(kPath))));
}

TEST_F(DurableReplaceTest, ReplacesALinkAndLeavesWhatItLeadsToAlone) {
  root.write("/etc/target", "target");
  root.makeLink(kPath, "target");
  ASSERT_EQ(replace().outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_TRUE(std::filesystem::is_symlink(root.hostPath(kBackup)));
  EXPECT_EQ(root.read("/etc/target"), "target");
}

TEST_F(DurableReplaceTest, LeavesEverythingAsItWasWhenTheTemporaryCannotBeWritten) {
  root.write(kPath, "old");
  root.write(kBackup, "older");
  files.fillDisk();
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(replacement.error.code(), ENOSPC);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kBackup), "older");
  EXPECT_FALSE(root.exists(kTemporary));
}

TEST_F(DurableReplaceTest, LeavesTheContentInTheTemporaryWhenTheNamesCannotBeExchanged) {
  root.write(kPath, "old");
  root.write(kBackup, "older");
  files.failAll("exchange", EIO);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchanged);
  EXPECT_EQ(replacement.error.code(), EIO);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kTemporary), "new");
  EXPECT_EQ(root.read(kBackup), "older");
}

TEST_F(DurableReplaceTest, LeavesTheContentInTheTemporaryWhenThereIsNoFileToReplace) {
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchanged);
  EXPECT_EQ(replacement.error.code(), ENOENT);
  EXPECT_FALSE(root.exists(kPath));
  EXPECT_FALSE(root.exists(kBackup));
  EXPECT_EQ(root.read(kTemporary), "new");
  expectGivenAway(kTemporary, 0600);
}

// Each failure after the exchange, in the order of the steps.
class UndoneReplacementTest : public DurableReplaceTest, public testing::WithParamInterface<const char*> {};

TEST_P(UndoneReplacementTest, ExchangesTheNamesBack) {
  root.write(kPath, "old");
  root.write(kBackup, "older");
  files.failNth(GetParam(), 1, EIO);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchanged);
  EXPECT_EQ(replacement.error.code(), EIO);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kTemporary), "new");
  EXPECT_EQ(root.read(kBackup), "older");
  EXPECT_EQ(files.journal().back(), "syncDirectory /etc");
}

TEST_P(UndoneReplacementTest, ReportsTheFirstFailureWhenTheDiskStaysBroken) {
  root.write(kPath, "old");
  files.failAll(GetParam(), EIO);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchanged);
  EXPECT_EQ(replacement.error.code(), EIO);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kTemporary), "new");
}

TEST_P(UndoneReplacementTest, TellsWhenTheNamesCannotBeExchangedBack) {
  root.write(kPath, "old");
  files.failAll(GetParam(), EIO);
  files.failNth("exchange", 2, EROFS);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchangedBack);
  EXPECT_EQ(replacement.error.code(), EIO);
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_EQ(root.read(kTemporary), "old");
}

TEST_P(UndoneReplacementTest, SucceedsAtTheNextAttempt) {
  root.write(kPath, "old");
  files.failNth(GetParam(), 1, EIO);
  ASSERT_EQ(replace("first").outcome, ReplaceOutcome::notExchanged);
  ASSERT_EQ(replace("second").outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "second");
  EXPECT_EQ(root.read(kBackup), "old");
  EXPECT_FALSE(root.exists(kTemporary));
}

INSTANTIATE_TEST_SUITE_P(AfterTheExchange, UndoneReplacementTest, testing::Values("syncDirectory", "rename"));

TEST_F(DurableReplaceTest, ExchangesBackWhenADirectoryHasTheBackupsName) {
  root.write(kPath, "old");
  root.makeDirectory(kBackup);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::notExchanged);
  EXPECT_EQ(replacement.error.code(), EISDIR);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kTemporary), "new");
}

TEST_F(DurableReplaceTest, ReplacesNoDirectory) {
  root.write("/etc/sm.xml/inside", "kept");
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(replacement.error.code(), EISDIR);
  EXPECT_EQ(root.read("/etc/sm.xml/inside"), "kept");
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
}

TEST_F(DurableReplaceTest, CannotWriteATemporaryOverADirectory) {
  root.write(kPath, "old");
  root.makeDirectory(kTemporary);
  EXPECT_EQ(replace().outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(root.read(kPath), "old");
}

TEST_F(DurableReplaceTest, HasAWholeFileUnderTheNameBeforeEveryStep) {
  root.write(kPath, "old");
  std::set<std::string> seen;
  files.beforeCall = [&](const FaultyFileSystem::Call&) { seen.insert(root.read(kPath)); };
  ASSERT_EQ(replace().outcome, ReplaceOutcome::replaced);
  EXPECT_THAT(seen, ElementsAre("new", "old"));
}

TEST_F(DurableReplaceTest, LeavesEverythingAsItWasWhenTheNewContentCannotBeFlushed) {
  root.write(kPath, "old");
  root.write(kBackup, "older");
  files.failAll("flush", ENOSPC);
  const auto replacement = replace();
  EXPECT_EQ(replacement.outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(replacement.error.code(), ENOSPC);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kBackup), "older");
  EXPECT_FALSE(root.exists(kTemporary));
}

// Enough to be written at once.
const std::string kLarge(std::size_t{2} * 1024 * 1024, 'n');

// Three files in two directories, replaced together.
class BatchTest : public DurableReplaceTest {
 protected:
  const std::vector<std::string> paths = {"/etc/a", "/var/b", "/etc/c"};
  ReplacementBatch batch{files};

  void SetUp() override {
    for (const std::string& path : paths) root.write(path, "old" + path);
    files.clearCalls();
  }

  void stageAll() {
    for (const std::string& path : paths) batch.stage(path, "new" + path, kOwnership);
  }

  std::vector<int> replaceAll() {
    std::vector<int> codes;
    for (const Replacement& result : batch.replace()) codes.push_back(result.error.code());
    return codes;
  }

  void expectOld(const std::string& path) { EXPECT_EQ(root.read(path), "old" + path); }
  void expectNew(const std::string& path) {
    EXPECT_EQ(root.read(path), "new" + path);
    EXPECT_EQ(root.read(backupPathFor(path)), "old" + path);
    EXPECT_FALSE(root.exists(temporaryPathFor(path)));
  }
};

TEST_F(BatchTest, FlushesAllContentsOnceAndThenEachDirectoryOnce) {
  stageAll();
  EXPECT_THAT(replaceAll(), ElementsAre(0, 0, 0));
  EXPECT_THAT(
      files.changes(),
      ElementsAre("createFile /etc/a.tmp", "createFile /var/b.tmp", "createFile /etc/c.tmp",
                  "flush /etc/a.tmp", "flush /var/b.tmp", "flush /etc/c.tmp", "exchange /etc/a.tmp /etc/a",
                  "exchange /var/b.tmp /var/b", "exchange /etc/c.tmp /etc/c", "syncDirectory /etc",
                  "syncDirectory /var", "rename /etc/a.tmp /etc/a.bak", "rename /var/b.tmp /var/b.bak",
                  "rename /etc/c.tmp /etc/c.bak"));
  for (const std::string& path : paths) expectNew(path);
}

TEST_F(BatchTest, ReplacesTheOthersWhenOneCannotBeWritten) {
  files.failPath("createFile", "/var/b.tmp", EDQUOT);
  stageAll();
  const auto results = batch.replace();
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(results[1].outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(results[1].error.code(), EDQUOT);
  EXPECT_EQ(results[2].outcome, ReplaceOutcome::replaced);
  expectNew(paths[0]);
  expectOld(paths[1]);
  expectNew(paths[2]);
}

TEST_F(BatchTest, WritesWhatThereIsEnoughOfBeforeTheRestIsThere) {
  batch.stage(paths[0], kLarge, kOwnership);
  EXPECT_THAT(files.changes(), ElementsAre("createFile /etc/a.tmp"));
  batch.stage(paths[1], "new" + paths[1], kOwnership);
  batch.stage(paths[2], kLarge, kOwnership);
  EXPECT_THAT(replaceAll(), ElementsAre(0, 0, 0));
  EXPECT_EQ(root.read(paths[0]), kLarge);
  expectNew(paths[1]);
  EXPECT_EQ(root.read(paths[2]), kLarge);
}

TEST_F(BatchTest, ReplacesTheOthersWhenOneIsADirectory) {
  root.remove(paths[0]);
  root.makeDirectory(paths[0]);
  stageAll();
  const auto results = batch.replace();
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].outcome, ReplaceOutcome::temporaryNotWritten);
  EXPECT_EQ(results[0].error.code(), EISDIR);
  expectNew(paths[1]);
  expectNew(paths[2]);
}

TEST_F(BatchTest, TellsWhatTheNewFilesAre) {
  stageAll();
  const auto results = batch.replace();
  ASSERT_EQ(results.size(), 3U);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const FileAttributes now = files.attributes(paths[i]).value();
    EXPECT_EQ(results[i].is.inode, now.inode);
    EXPECT_EQ(results[i].is.modified, now.modified);
    EXPECT_EQ(results[i].is.size, now.size);
  }
}

TEST_F(BatchTest, ReplacesNoneWhenTheContentsCannotBeFlushed) {
  stageAll();
  files.failPath("flush", "/etc/c.tmp", EIO);
  const auto results = batch.replace();
  ASSERT_EQ(results.size(), 3U);
  for (const Replacement& result : results) {
    EXPECT_EQ(result.outcome, ReplaceOutcome::temporaryNotWritten);
    EXPECT_EQ(result.error.code(), EIO);
  }
  for (const std::string& path : paths) {
    expectOld(path);
    EXPECT_FALSE(root.exists(temporaryPathFor(path)));
    EXPECT_FALSE(root.exists(backupPathFor(path)));
  }
}

TEST_F(BatchTest, LeavesTheOthersAloneWhenOneCannotBeExchanged) {
  stageAll();
  root.remove(paths[1]);
  EXPECT_THAT(replaceAll(), ElementsAre(0, ENOENT, 0));
  expectNew(paths[0]);
  EXPECT_EQ(root.read("/var/b.tmp"), "new/var/b");
  EXPECT_FALSE(root.exists(paths[1]));
  expectNew(paths[2]);
}

TEST_F(BatchTest, ExchangesBackWhatStandsInADirectoryThatCannotBeFlushed) {
  stageAll();
  files.failPath("syncDirectory", "/etc", EIO);
  EXPECT_THAT(replaceAll(), ElementsAre(EIO, 0, EIO));
  expectOld(paths[0]);
  EXPECT_EQ(root.read("/etc/a.tmp"), "new/etc/a");
  expectNew(paths[1]);
  expectOld(paths[2]);
}

TEST_F(BatchTest, ExchangesBackTheOneWhoseBackupCannotBeKept) {
  stageAll();
  files.failPath("rename", "/etc/a.bak", EIO);
  EXPECT_THAT(replaceAll(), ElementsAre(EIO, 0, 0));
  expectOld(paths[0]);
  expectNew(paths[1]);
  expectNew(paths[2]);
}

TEST_F(BatchTest, RemovesWhatWasStagedAndNeverReplaced) {
  {
    ReplacementBatch givenUp(files);
    givenUp.stage("/etc/a", kLarge, kOwnership);
    ASSERT_TRUE(root.exists("/etc/a.tmp"));
    givenUp.stage("/var/b", "new", kOwnership);
  }
  EXPECT_FALSE(root.exists("/var/b.tmp"));
  EXPECT_FALSE(root.exists("/etc/a.tmp"));
  expectOld("/etc/a");
}

TEST_F(BatchTest, HasNothingToReplaceWhenEmptyOrDone) {
  EXPECT_THAT(batch.replace(), IsEmpty());
  stageAll();
  ASSERT_EQ(batch.replace().size(), 3U);
  files.clearCalls();
  EXPECT_THAT(batch.replace(), IsEmpty());
  EXPECT_THAT(files.journal(), IsEmpty());
}

class AtomicWriteTest : public DurableReplaceTest {
 protected:
  int write(std::string_view content = "new") {
    const auto written = writeAtomically(files, kPath, content, kOwnership);
    return written ? 0 : written.error().code();
  }
};

TEST_F(AtomicWriteTest, MakesAFileWhereThereIsNone) {
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(root.read(kPath), "new");
  expectGivenAway(kPath, 0600);
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
  EXPECT_EQ(files.journal().back(), "syncDirectory /etc");
}

TEST_F(AtomicWriteTest, ReplacesAnOlderFileWithoutABackup) {
  root.write(kPath, "old");
  root.write(kTemporary, "left over");
  root.write(kBackup, "somebody's");
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(root.read(kPath), "new");
  expectGivenAway(kPath, 0600);
  EXPECT_EQ(root.read(kBackup), "somebody's");
  EXPECT_FALSE(root.exists(kTemporary));
}

TEST_F(AtomicWriteTest, ReplacesALinkAndLeavesWhatItLeadsToAlone) {
  root.write("/etc/target", "target");
  root.makeLink(kPath, "target");
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_EQ(root.read("/etc/target"), "target");
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml", "target"));
}

TEST_F(AtomicWriteTest, ReplacesALinkThatLeadsNowhere) {
  root.makeLink(kPath, "planted");
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
}

TEST_F(AtomicWriteTest, LeavesADirectoryOfThatNameAlone) {
  root.write("/etc/sm.xml/inside", "kept");
  EXPECT_EQ(write(), EISDIR);
  EXPECT_EQ(root.read("/etc/sm.xml/inside"), "kept");
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
}

TEST_F(AtomicWriteTest, FailsWhereThereIsNoDirectory) {
  const auto written = writeAtomically(files, "/nowhere/file", "new", kOwnership);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code(), ENOENT);
}

TEST_F(AtomicWriteTest, LeavesNoFileBehindWhenANewOneCannotBePutInPlace) {
  for (const char* step : {"createFile", "exchange", "rename", "syncDirectory"}) {
    files.failAll(step, EIO);
    EXPECT_EQ(write(), EIO) << step;
    EXPECT_THAT(root.list("/etc"), IsEmpty()) << step;
    files.heal();
  }
}

TEST_F(AtomicWriteTest, LeavesTheOlderFileWholeWhenItCannotBeReplaced) {
  root.write(kPath, "old");
  for (const char* step : {"createFile", "exchange", "syncDirectory"}) {
    files.failAll(step, EIO);
    EXPECT_EQ(write(), EIO) << step;
    files.heal();
    EXPECT_EQ(root.read(kPath), "old") << step;
    EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml")) << step;
  }
}

TEST_F(AtomicWriteTest, BringsTheOlderFileBackWhenItCannotBeRemoved) {
  root.write(kPath, "old");
  files.failNth("remove", 1, EIO);
  EXPECT_EQ(write(), EIO);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
}

TEST_F(AtomicWriteTest, KeepsTheOlderFileUnderTheOtherNameWhenTheExchangeCannotBeUndone) {
  root.write(kPath, "old");
  files.failAll("syncDirectory", EIO);
  files.failNth("exchange", 2, EROFS);
  EXPECT_EQ(write(), EIO);
  EXPECT_EQ(root.read(kPath), "new");
  EXPECT_EQ(root.read(kTemporary), "old");
  EXPECT_THAT(files.journal(), Not(Contains("remove /etc/sm.xml.tmp")));
}

}  // namespace

}  // namespace tessard
