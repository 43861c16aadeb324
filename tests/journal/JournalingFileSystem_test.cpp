#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <map>
#include <set>

#include "common/DurableReplace.h"
#include "tests/journal/JournalFixtures.h"
#include "tests/support/RestlessDirectory.h"

namespace tessard {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kHome = kJournalHome;

TEST_F(JournalTest, NotesNothingOutsideOfARequest) {
  changeEverything();
  EXPECT_FALSE(root.exists("/Library"));
  EXPECT_TRUE(files.end()) << "nothing has failed";
}

TEST_F(JournalTest, CostsNothingWhereNothingIsChanged) {
  files.startRequest();
  EXPECT_TRUE(files.exists("/etc/a"));
  EXPECT_TRUE(files.attributes("/etc/a"));
  EXPECT_TRUE(files.readFile("/etc/a", 100));
  EXPECT_TRUE(files.listDirectory("/etc"));
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_FALSE(root.exists("/Library"));
  EXPECT_THAT(disk.changes(), IsEmpty());
}

TEST_F(JournalTest, KeepsTheChangesOfARequestThatSucceeds) {
  files.startRequest();
  changeEverything();
  EXPECT_TRUE(root.exists(kHome + "/open"));
  EXPECT_EQ(root.mode(kHome), 0700U);
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_THAT(root.list(kHome), ElementsAre("kept"));
  files.tidyUp();
  EXPECT_THAT(root.list(kHome), IsEmpty());
  EXPECT_EQ(root.read("/etc/a"), "new a");
  EXPECT_EQ(root.read("/etc/a.bak"), "old a");
  EXPECT_EQ(root.read("/etc/b"), "new a");
  EXPECT_EQ(root.read("/var/x/y/inside"), "inside");
  EXPECT_EQ(root.read("/var/moved"), "old c");
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(JournalTest, WorksBehindLinksWhateverDirectoriesOthersRename) {
  const RestlessDirectory other(root);
  // The kernel gives up where ".." is on the way; the more of them, the sooner.
  std::string path = "/private/etc";
  for (int count = 0; count < 45; ++count) path += "/../etc";
  path += "/a";
  int failed = 0;
  constexpr int kRequests = 200;
  for (int count = 0; count < kRequests; ++count) {
    files.startRequest();
    if (!writeAtomically(files, path, std::to_string(count), kOwnership)) ++failed;
    if (!files.finishRequest(count % 2 == 0) && count % 2 != 0) ++failed;
    files.tidyUp();
  }
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(root.read("/etc/a"), std::to_string(kRequests - 1));
}

TEST_F(JournalTest, PutsEverythingBackWhenARequestFails) {
  const auto before = everything();
  files.startRequest();
  changeEverything();
  EXPECT_NE(everything(), before);
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
  EXPECT_THAT(root.list(kHome), IsEmpty());
  ASSERT_THAT(platform.log.messages(kLogWarning), SizeIs(1));
  EXPECT_THAT(platform.log.messages(kLogWarning).front(), testing::StartsWith("the request has failed: "));
}

TEST_F(JournalTest, PutsEverythingBackAtTheStartAfterADeathAndKeepsWhatItReplaces) {
  const auto before = everything();
  files.startRequest();
  changeEverything();
  // A daemon that starts knows nothing of the one that died.
  JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
  const auto undone = next.recover();
  EXPECT_TRUE(undone.found);
  EXPECT_GT(undone.files, 0U);
  EXPECT_THAT(undone.problems, IsEmpty());
  EXPECT_EQ(everything(), before);
  EXPECT_THAT(root.list(kHome), ElementsAre("undone"));
  EXPECT_EQ(root.read(kHome + "/undone/replaced/+etc/a"), "new a");
  EXPECT_EQ(root.read(kHome + "/undone/replaced/+etc/made"), "made");
  EXPECT_FALSE(next.recover().found);
}

TEST_F(JournalTest, CarriesAnUndoOnThatWasCutOffItself) {
  const auto before = everything();
  files.startRequest();
  changeEverything();
  // Half of it is done already.
  std::filesystem::rename(root.hostPath(kHome + "/open/present/+etc/b"), root.hostPath("/etc/b"));
  root.remove("/etc/made");
  JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
  EXPECT_THAT(next.recover().problems, IsEmpty());
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, FinishesTheRemovalOfAJournalThatIsNoLongerNeeded) {
  root.write(kHome + "/kept/present/+etc/a", "not to be put back");
  root.setMode(kHome, 0700);
  JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
  EXPECT_FALSE(next.recover().found);
  EXPECT_THAT(root.list(kHome), IsEmpty());
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

// What stands beside a file is noted with it where it is there; where it is not, the file's note says so.
TEST_F(JournalTest, PutsBackTemporariesAndBackupsThatWereThere) {
  root.write("/etc/a.tmp", "left by somebody");
  root.write("/etc/b.bak", "older b");
  const auto before = everything();
  files.startRequest();
  changeEverything();
  ASSERT_TRUE(files.remove("/etc/b.bak"));
  ASSERT_EQ(replaceKeepingBackup(files, "/etc/b", "new b", kOwnership).outcome, ReplaceOutcome::replaced);
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, PutsBackBackupsThatWereThereHoweverFarAnUndoCame) {
  root.write("/etc/b.bak", "older b");
  const auto before = everything();
  files.startRequest();
  changeEverything();
  // The files are put back before what stands beside them.
  std::filesystem::rename(root.hostPath(kHome + "/open/present/+etc/b"), root.hostPath("/etc/b"));
  std::filesystem::rename(root.hostPath(kHome + "/open/present/+etc/b.bak"), root.hostPath("/etc/b.bak"));
  JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
  EXPECT_THAT(next.recover().problems, IsEmpty());
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, PutsBackBackupsThatWereThereThoughTheirFileCouldNotBePutBackAtFirst) {
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(files.remove("/etc/a"));
  ASSERT_TRUE(files.createFile("/etc/a", "new a", kOwnership, Flush::later));
  // Nothing can be put back in its place.
  root.remove("/etc/a");
  root.makeDirectory("/etc/a");
  EXPECT_FALSE(files.finishRequest(true));
  root.remove("/etc/a");
  files.startRequest();
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, RemovesTemporariesAndBackupsOfARequestThatDied) {
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(files.createFile("/etc/b.tmp", "temporary", kOwnership, Flush::later));
  ASSERT_TRUE(files.rename("/etc/b.tmp", "/etc/b.bak"));
  ASSERT_TRUE(files.createFile("/etc/b.tmp", "temporary", kOwnership, Flush::later));
  ASSERT_TRUE(files.createFile("/etc/other.tmp", "of a new file", kOwnership, Flush::later));
  JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
  EXPECT_THAT(next.recover().problems, IsEmpty());
  EXPECT_EQ(everything(), before);
  EXPECT_EQ(root.read(kHome + "/undone/replaced/+etc/b.tmp"), "temporary");
}

TEST_F(JournalTest, NotesTheTemporaryOfADirectoryAlone) {
  root.makeDirectory("/etc/directory");
  root.makeDirectory("/etc/b.bak");
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(files.createFile("/etc/directory.tmp", "temporary", kOwnership, Flush::later));
  ASSERT_TRUE(files.createFile("/etc/b.tmp", "temporary", kOwnership, Flush::later));
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, ChangesFilesWhoseBackupsCouldHaveNoName) {
  const std::string path = "/etc/" + std::string(255, 'n');
  root.write(path, "kept");
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(files.remove(path));
  EXPECT_FALSE(root.exists(path));
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, KeepsStepsThatStandForThemselvesWhateverBecomesOfTheRest) {
  files.startRequest();
  ASSERT_TRUE(writeAtomically(files, "/etc/step", "kept", kOwnership));
  files.keep();
  ASSERT_TRUE(writeAtomically(files, "/etc/b", "lost", kOwnership));
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(root.read("/etc/step"), "kept");
  EXPECT_EQ(root.read("/etc/b"), "old b");
}

TEST_F(JournalTest, PutsChangesBackThatBelongTogetherWhenOneHasFailed) {
  const auto before = everything();
  files.startRequest();
  bool told = false;
  {
    ChangeSet changes(files, [&] { told = true; });
    changeEverything();
    files.keep();
    files.fail();
    EXPECT_FALSE(changes.end());
  }
  EXPECT_TRUE(told);
  EXPECT_EQ(everything(), before);
  EXPECT_TRUE(files.finishRequest(false)) << "there is nothing left to put back";
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, PutsChangesBackWhenTheirBlockIsLeftWithoutAnEnd) {
  const auto before = everything();
  files.startRequest();
  bool told = false;
  {
    const ChangeSet changes(files, [&] { told = true; });
    changeEverything();
  }
  EXPECT_TRUE(told);
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, FlushesContentsAndEachDirectoryBeforeItKeepsThem) {
  files.startRequest();
  disk.clearCalls();
  ASSERT_TRUE(files.createFile("/etc/later", "x", {}, Flush::later));
  ASSERT_TRUE(files.rename("/etc/later", "/etc/renamed"));
  ASSERT_TRUE(files.syncDirectory("/etc"));
  ASSERT_TRUE(files.syncDirectory("/etc"));
  EXPECT_THAT(disk.calls("syncDirectory"), IsEmpty());
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_THAT(disk.calls("flush"), SizeIs(1));
  EXPECT_EQ(disk.calls("flush").front().path, "/etc/renamed");
  EXPECT_THAT(disk.calls("syncDirectory"), SizeIs(1));
}

TEST_F(JournalTest, PutsBackWhatCannotBeMadeToLast) {
  const auto before = everything();
  for (const char* step : {"flush", "syncDirectory"}) {
    files.startRequest();
    files.begin();
    ASSERT_TRUE(files.createFile("/etc/later", "x", {}, Flush::later)) << step;
    ASSERT_TRUE(files.rename("/etc/later", "/etc/a"));
    ASSERT_TRUE(files.syncDirectory("/etc"));
    disk.failAll(step, EIO);
    EXPECT_FALSE(files.end()) << step;
    disk.heal();
    EXPECT_EQ(everything(), before) << step;
    EXPECT_TRUE(files.finishRequest(false));
  }
  EXPECT_TRUE(platform.log.has(kLogError, "the changes of the request cannot be kept: Input/output error"));
}

/// A request that can neither be made to last nor get its journal back.
class JournalThatIsStuck : public JournalTest {
 protected:
  JournalThatIsStuck() {
    // As the journal has its new name, something else gets the old one.
    disk.beforeCall = [this](const FaultyFileSystem::Call& call) {
      if (call.operation == "syncDirectory") root.write(kHome + "/open/in the way", "");
    };
    disk.failAll("syncDirectory", EIO);
    files.startRequest();
    files.begin();
    changeEverything();
    EXPECT_FALSE(files.end());
    disk.beforeCall = nullptr;
    disk.heal();
  }

  void clearTheWay() {
    root.remove(kHome + "/open/in the way");
    root.remove(kHome + "/open");
  }
};

TEST_F(JournalThatIsStuck, LeavesTheWholeChangeUntilTheNextRequestPutsItBack) {
  EXPECT_EQ(root.read("/etc/a"), "new a");
  EXPECT_EQ(root.read("/var/moved"), "old c");
  EXPECT_TRUE(platform.log.has(kLogError, "the changes of the request cannot be kept: Input/output error"));
  EXPECT_TRUE(
      platform.log.has(kLogError, "the journal in \"" + kHome + "\" cannot be used: Directory not empty"));
  EXPECT_TRUE(files.finishRequest(false));
}

TEST_F(JournalThatIsStuck, IsUndoneByTheNextRequest) {
  EXPECT_TRUE(files.finishRequest(false));
  files.tidyUp();
  clearTheWay();
  files.startRequest();
  EXPECT_EQ(root.read("/etc/a"), "old a");
  EXPECT_EQ(root.read("/var/c"), "old c");
  EXPECT_FALSE(root.exists("/etc/made"));
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_THAT(root.list(kHome), IsEmpty());
}

TEST_F(JournalThatIsStuck, LeavesAllOfTheChangeWhenTheDaemonDies) {
  clearTheWay();
  JournalingFileSystem next(platform.files, platform.posixFiles, root.path(), platform.log);
  EXPECT_THAT(next.recover().problems, IsEmpty());
  EXPECT_EQ(root.read("/etc/a"), "new a");
  EXPECT_EQ(root.read("/etc/made"), "made");
  EXPECT_EQ(root.read("/var/moved"), "old c");
}

TEST_F(JournalTest, BeginsAnewWhereItWasMadeBeforeAndCouldNotBeOpened) {
  root.makeDirectory(kHome);
  root.setMode(kHome, 0700);
  for (const bool hasMarker : {false, true}) {
    root.makeDirectory(kHome + "/open");
    if (hasMarker) root.write(kHome + "/open/marker", "");
    files.startRequest();
    EXPECT_TRUE(files.remove("/etc/a"));
    EXPECT_FALSE(files.finishRequest(true));
    EXPECT_EQ(root.read("/etc/a"), "old a");
  }
}

TEST_F(JournalTest, BeginsNoneWhereThereIsAnotherWithNotes) {
  root.write(kHome + "/open/present/+etc/a", "somebody's");
  root.setMode(kHome, 0700);
  files.startRequest();
  EXPECT_FALSE(files.remove("/etc/a"));
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_EQ(root.read(kHome + "/open/present/+etc/a"), "somebody's");
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(JournalTest, CountsHowOftenFilesWerePutBack) {
  for (const std::size_t before : {0U, 1U}) {
    files.startRequest();
    ASSERT_TRUE(writeAtomically(files, "/etc/a", "new", kOwnership));
    EXPECT_EQ(files.timesUndone(), before);
    EXPECT_FALSE(files.finishRequest(true));
    EXPECT_EQ(files.timesUndone(), before + 1);
  }
  files.startRequest();
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "new", kOwnership));
  EXPECT_TRUE(files.finishRequest(false));
  files.startRequest();
  EXPECT_FALSE(files.finishRequest(true)) << "nothing was changed";
  EXPECT_EQ(files.timesUndone(), 2U);
}

TEST_F(JournalTest, IsNotTakenForMissingWhereItsHomeCannotBeLookedAt) {
  files.startRequest();
  changeEverything();
  disk.failPath("attributes", "/journal", EIO);
  JournalingFileSystem next(platform.files, platform.posixFiles, root.path(), platform.log);
  EXPECT_THAT(next.recover().problems,
              ElementsAre("the journal in \"" + kHome + "\" cannot be read: Input/output error"));
  disk.heal();
  next.startRequest();
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(JournalTest, TellsWhyADirectoryCannotBeMadeWhoseParentCannotBeLookedAt) {
  files.startRequest();
  disk.failPath("attributes", "/var", EIO);
  EXPECT_EQ(files.createDirectory("/var/x", {}, true).error().code(), EIO);
  disk.heal();
  EXPECT_FALSE(root.exists("/var/x"));
  EXPECT_TRUE(files.finishRequest(false));
}

TEST_F(JournalTest, TellsWhetherChangesBelongTogether) {
  files.startRequest();
  EXPECT_FALSE(files.underWay());
  files.begin();
  EXPECT_TRUE(files.underWay());
  EXPECT_TRUE(files.end());
  EXPECT_FALSE(files.underWay());
  files.begin();
  EXPECT_FALSE(files.finishRequest(false));
  EXPECT_FALSE(files.underWay());
}

TEST_F(JournalTest, SaysThatNothingWasChangedWhenOneOfTheChangesHasFailed) {
  const std::string error = "not everything could be written: every file is as it was before";
  files.startRequest();
  files.begin();
  files.fail();
  EXPECT_FALSE(files.end());
  EXPECT_FALSE(platform.log.has(kLogError, error)) << "nothing was changed";
  files.begin();
  ASSERT_TRUE(files.createFile("/etc/new", "", {}, Flush::later));
  files.fail();
  EXPECT_FALSE(files.end());
  EXPECT_TRUE(platform.log.has(kLogError, error));
}

TEST_F(JournalTest, LeavesAFileThatSomebodyElseHasChangedMeanwhile) {
  files.startRequest();
  ASSERT_TRUE(writeAtomically(files, "/etc/b", "new b", kOwnership));
  root.remove("/etc/b");
  root.write("/etc/b", "somebody's");
  files.leave("/etc/b");
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "new a", kOwnership));
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(root.read("/etc/b"), "somebody's");
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(JournalTest, ChangesNothingThatItCannotNote) {
  root.makeLink(kHome, "/etc");
  const auto before = everything();
  files.startRequest();
  EXPECT_FALSE(files.remove("/etc/b"));
  EXPECT_FALSE(writeAtomically(files, "/etc/a", "new", kOwnership));
  EXPECT_FALSE(files.createDirectory("/etc/new", {}, false));
  EXPECT_EQ(everything(), before);
  EXPECT_TRUE(files.finishRequest(false));
}

TEST_F(JournalTest, ChangesNothingWhileTheProcessCanOpenNoMoreFiles) {
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(files.createFile("/etc/first", "", {}, Flush::later));
  {
    const NoMoreFiles limit;
    for (const char* path : {"/etc/a", "/var/c", "/var/x/y/z"}) {
      EXPECT_EQ(files.createDirectory(path, {}, true).error().code(), EMFILE) << path;
      EXPECT_EQ(files.createFile(path, "new", {}, Flush::later).error().code(), EMFILE) << path;
      EXPECT_EQ(files.setOwnership(path, {std::nullopt, std::nullopt, 0600}).error().code(), EMFILE) << path;
    }
  }
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, ClosesAHomeThatOthersCanEnter) {
  root.makeDirectory(kHome);
  root.setMode(kHome, 0755);
  files.startRequest();
  EXPECT_TRUE(files.remove("/etc/b"));
  EXPECT_EQ(root.mode(kHome), 0700U);
}

TEST_F(JournalTest, PutsNothingBackThatOthersMayHaveWritten) {
  root.write(kHome + "/open/present/+etc/b", "planted");
  root.setMode(kHome, 0777);
  EXPECT_FALSE(files.recover().found);
  EXPECT_EQ(root.read("/etc/b"), "old b");
  EXPECT_TRUE(root.exists(kHome + ".foreign"));
  EXPECT_EQ(root.mode(kHome), 0700U);
}

TEST_F(JournalTest, FollowsNoLinkThatWasPutInTheWayMeanwhile) {
  root.write("/var/owned/file", "old");
  root.write("/etc/file", "not to be touched");
  files.startRequest();
  ASSERT_TRUE(files.remove("/var/owned/file"));
  std::filesystem::rename(root.hostPath("/var/owned"), root.hostPath("/var/away"));
  root.makeLink("/var/owned", "../etc");
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(root.read("/etc/file"), "not to be touched");
  EXPECT_THAT(platform.log.messages(kLogError), SizeIs(1));
  EXPECT_EQ(root.read(kHome + "/open/present/+var/+owned/file"), "old") << "nothing is lost";
  // Nothing can be changed until that is put right; then the next request finds it done.
  files.startRequest();
  EXPECT_FALSE(files.remove("/etc/b"));
  files.finishRequest(false);
  root.remove("/var/owned");
  std::filesystem::rename(root.hostPath("/var/away"), root.hostPath("/var/owned"));
  files.startRequest();
  EXPECT_EQ(root.read("/var/owned/file"), "old");
  EXPECT_TRUE(files.remove("/etc/b"));
  EXPECT_TRUE(files.finishRequest(false));
}

TEST_F(JournalTest, TakesAPathByAnotherNameForTheSameFile) {
  const auto before = everything();
  files.startRequest();
  ASSERT_TRUE(writeAtomically(files, "/private/etc/a", "first", kOwnership));
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "second", kOwnership));
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, LeavesADirectoryThatSomebodyElseUses) {
  files.startRequest();
  ASSERT_TRUE(files.createDirectory("/var/new", {}, false));
  root.write("/var/new/theirs", "kept");
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(root.read("/var/new/theirs"), "kept");
}

}  // namespace

}  // namespace tessard
