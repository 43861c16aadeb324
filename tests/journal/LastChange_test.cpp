#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "common/DurableReplace.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using State = LastChange::State;

const std::string kHome = kJournalHome;
const FileOwnership kOwnership{84, 0, 0600};

/// Requests that change files, and what becomes of undoing them.
class LastChangeTest : public testing::Test {
 protected:
  TestPlatform platform;
  ScratchRoot& root = platform.root;
  JournalingFileSystem& files = platform.journal;

  LastChangeTest() {
    root.write("/etc/a", "old a");
    root.setMode("/etc/a", 0640);
    root.setModified("/etc/a", {1'000'000'000, 7});
    root.write("/etc/a.bak", "older a");
    root.write("/etc/b", "old b");
    root.makeLink("/etc/link", "a");
    root.write("/var/c", "old c");
    root.makeDirectory("/var/old");
  }

  /// Name, kind, mode, time and content of everything but the journal.
  std::map<std::string, std::string> everything() const {
    std::map<std::string, std::string> found;
    namespace fs = std::filesystem;
    for (const auto& entry : fs::recursive_directory_iterator(root.path())) {
      const std::string path = entry.path().string().substr(root.path().size());
      if (path.starts_with("/Library")) continue;
      std::string is = std::to_string(root.mode(path)) + " " + std::to_string(root.owner(path)) + " ";
      if (entry.is_symlink()) {
        is = "link to " + fs::read_symlink(entry.path()).string();
      } else if (entry.is_regular_file()) {
        const FileTime time = root.modified(path);
        is += std::to_string(time.seconds) + "." + std::to_string(time.nanoseconds) + " " + root.read(path);
      }
      found[path] = is;
    }
    return found;
  }

  void changeEverything() {
    ASSERT_EQ(replaceKeepingBackup(files, "/private/etc/a", "new a", kOwnership).outcome,
              ReplaceOutcome::replaced);
    ASSERT_TRUE(writeAtomically(files, "/etc/made", "made", kOwnership));
    ASSERT_TRUE(files.remove("/etc/b"));
    ASSERT_TRUE(files.remove("/etc/link"));
    ASSERT_TRUE(files.createDirectory("/var/x/y", {std::nullopt, std::nullopt, 0750}, true));
    ASSERT_TRUE(files.createFile("/var/x/y/inside", "inside", {}, Flush::later));
    ASSERT_TRUE(files.setOwnership("/var/c", {std::nullopt, std::nullopt, 0604}));
    ASSERT_TRUE(files.rename("/var/c", "/var/moved"));
    ASSERT_TRUE(files.setOwnership("/var/old", {std::nullopt, std::nullopt, 0711}));
  }

  /// One request whose changes can be undone.
  template <class Change>
  void request(Change change) {
    files.startRequest();
    files.begin();
    change();
    ASSERT_TRUE(files.endUndoably());
    ASSERT_TRUE(files.finishRequest(false));
    files.tidyUp();
  }

  void write(const std::string& path, const std::string& content) {
    request([&] { ASSERT_TRUE(writeAtomically(files, path, content, kOwnership)); });
  }

  LastChange undo() {
    files.startRequest();
    files.begin();
    LastChange undone = files.undoLast();
    EXPECT_EQ(files.endUndoably(), undone.state == State::undoable);
    files.finishRequest(false);
    files.tidyUp();
    return undone;
  }

  /// What a daemon that is started anew makes of the files.
  void restart() {
    JournalingFileSystem next(platform.posixFiles, platform.posixFiles, root.path(), platform.log);
    EXPECT_THAT(next.recover().problems, IsEmpty());
  }

  void edit(const std::string& path, const std::string& content) {
    // In place, as some editors do, and with the time that it had.
    const FileTime time = root.modified(path);
    root.write(path, content);
    root.setModified(path, time);
  }
};

TEST_F(LastChangeTest, IsUndoneWholeWithOwnersTimesAndBackups) {
  const auto before = everything();
  request([&] { changeEverything(); });
  EXPECT_NE(everything(), before);
  const LastChange undone = undo();
  EXPECT_EQ(undone.state, State::undoable);
  EXPECT_THAT(undone.files, ElementsAre("/etc/a", "/etc/b", "/etc/link", "/etc/made", "/var/c", "/var/moved",
                                        "/var/x", "/var/x/y", "/var/x/y/inside"));
  EXPECT_EQ(everything(), before);
  EXPECT_THAT(root.list(kHome), ElementsAre("last"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(LastChangeTest, IsMadeAgainWhenTheUndoIsUndone) {
  const auto before = everything();
  request([&] { changeEverything(); });
  const auto after = everything();
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(undo().state, State::undoable);
    EXPECT_EQ(everything(), before) << round;
    ASSERT_EQ(undo().state, State::undoable);
    EXPECT_EQ(everything(), after) << round;
  }
}

TEST_F(LastChangeTest, IsNoneBeforeAnythingWasChanged) {
  EXPECT_EQ(undo().state, State::none);
  EXPECT_EQ(files.lastChange().state, State::none);
  EXPECT_EQ(files.filesBeforeLast(), nullptr);
  EXPECT_FALSE(root.exists(kHome + "/last"));
}

TEST_F(LastChangeTest, IsTheNewestOne) {
  write("/etc/a", "first");
  write("/etc/a", "second");
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "first");
}

TEST_F(LastChangeTest, IsNotOneThatCannotBeUndone) {
  write("/etc/a", "first");
  files.startRequest();
  files.begin();
  ASSERT_TRUE(writeAtomically(files, "/etc/b", "of another request", kOwnership));
  ASSERT_TRUE(files.end());
  files.finishRequest(false);
  files.tidyUp();
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "old a");
  EXPECT_EQ(root.read("/etc/b"), "of another request");
}

TEST_F(LastChangeTest, IsNotOneThatFailed) {
  write("/etc/a", "first");
  files.startRequest();
  files.begin();
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "second", kOwnership));
  files.fail();
  EXPECT_FALSE(files.endUndoably());
  files.finishRequest(false);
  files.tidyUp();
  EXPECT_EQ(root.read("/etc/a"), "first");
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

// The time of a file tells nobody anything: only what is in it does.
TEST_F(LastChangeTest, IsNotOneThatLeftEverythingAsItWas) {
  write("/etc/a", "first");
  write("/etc/a", "first");
  EXPECT_THAT(root.list(kHome), ElementsAre("last"));
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(LastChangeTest, IsNotLostForOneThatLeftEverythingAsItWasBeforeItWasTidiedUpAfter) {
  files.startRequest();
  for (int time = 0; time < 2; ++time) {
    ChangeSet changes(files);
    ASSERT_TRUE(writeAtomically(files, "/etc/a", "new a", kOwnership));
    ASSERT_TRUE(changes.endUndoably());
  }
  ASSERT_TRUE(files.finishRequest(false));
  files.tidyUp();
  EXPECT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(LastChangeTest, IsNoneOnceItIsForgotten) {
  ASSERT_TRUE(files.forgetLast());
  write("/etc/a", "new a");
  ASSERT_TRUE(files.forgetLast());
  EXPECT_EQ(undo().state, State::none);
  EXPECT_EQ(root.read("/etc/a"), "new a");
  EXPECT_FALSE(root.exists(kHome + "/kept"));
  restart();
  EXPECT_EQ(undo().state, State::none);
  write("/etc/a", "newer a");
  EXPECT_EQ(undo().state, State::undoable);
}

TEST_F(LastChangeTest, IsNoneOnceItIsForgottenBeforeItWasTidiedUpAfter) {
  files.startRequest();
  {
    ChangeSet changes(files);
    ASSERT_TRUE(writeAtomically(files, "/etc/a", "new a", kOwnership));
    ASSERT_TRUE(changes.endUndoably());
  }
  ASSERT_TRUE(files.finishRequest(false));
  ASSERT_TRUE(files.forgetLast());
  EXPECT_EQ(undo().state, State::none);
}

TEST_F(LastChangeTest, IsOneThatChangedPermissionsAlone) {
  request([&] { ASSERT_TRUE(files.setOwnership("/var/old", {std::nullopt, std::nullopt, 0711})); });
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.mode("/var/old"), 0755U);
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.mode("/var/old"), 0711U);
}

TEST_F(LastChangeTest, IsNotUndoneOverWhatSomebodyHasEditedSince) {
  request([&] { changeEverything(); });
  edit("/etc/a", "n3w a");
  const auto before = everything();
  const LastChange undone = undo();
  EXPECT_EQ(undone.state, State::changedSince);
  EXPECT_THAT(undone.files, ElementsAre("/etc/a"));
  EXPECT_EQ(everything(), before);
  EXPECT_EQ(files.lastChange().state, State::changedSince);
  edit("/etc/a", "new a");
  EXPECT_EQ(undo().state, State::undoable) << "as it was again";
}

TEST_F(LastChangeTest, IsNotUndoneOverFilesThatAreGoneOrNewOrAnotherPersonsSince) {
  request([&] { changeEverything(); });
  root.remove("/etc/made");
  root.write("/etc/b", "somebody's");
  root.setMode("/etc/a", 0644);
  root.remove("/var/x/y/inside");
  root.makeDirectory("/var/x/y/inside");
  const auto before = everything();
  const LastChange undone = undo();
  EXPECT_EQ(undone.state, State::changedSince);
  EXPECT_THAT(undone.files, ElementsAre("/etc/a", "/etc/b", "/etc/made", "/var/x/y/inside"));
  EXPECT_EQ(everything(), before);
}

TEST_F(LastChangeTest, IsNotUndoneWhereADirectoryIsAnotherOneSince) {
  request([&] { ASSERT_TRUE(writeAtomically(files, "/var/old/file", "made", kOwnership)); });
  std::filesystem::rename(root.hostPath("/var/old"), root.hostPath("/var/older"));
  root.makeLink("/var/old", "older");
  EXPECT_THAT(undo().files, ElementsAre("/var/old/file"));
  EXPECT_EQ(root.read("/var/older/file"), "made");
}

TEST_F(LastChangeTest, IsNotUndoneOverAnEditThatComesInTheMidstOfIt) {
  request([&] { changeEverything(); });
  ASSERT_EQ(undo().state, State::undoable);
  // The first thing that is made again is a directory.
  bool edited = false;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (edited || call.operation != "createDirectory" || !call.path.starts_with("/var/x")) return;
    edited = true;
    edit("/etc/a", "edited meanwhile");
  };
  auto before = everything();
  const LastChange undone = undo();
  platform.files.beforeCall = nullptr;
  ASSERT_TRUE(edited);
  EXPECT_EQ(undone.state, State::changedSince);
  EXPECT_THAT(undone.files, ElementsAre("/etc/a"));
  EXPECT_EQ(root.read("/etc/a"), "edited meanwhile");
  edit("/etc/a", "old a");
  EXPECT_EQ(everything(), before);
}

TEST_F(LastChangeTest, FailsWholeWhenAFileCannotBeMadeAgain) {
  request([&] { changeEverything(); });
  ASSERT_EQ(undo().state, State::undoable);
  const auto before = everything();
  platform.files.failNth("createDirectory", 2, ENOSPC);
  EXPECT_EQ(undo().state, State::failed);
  EXPECT_EQ(everything(), before);
  EXPECT_THAT(platform.log.messages(kLogError),
              Contains("the last change cannot be undone: No space left on device"));
  platform.files.heal();
  EXPECT_EQ(undo().state, State::undoable);
}

TEST_F(LastChangeTest, LeavesADirectoryThatSomebodyHasPutSomethingInto) {
  request([&] {
    ASSERT_TRUE(writeAtomically(files, "/etc/a", "new a", kOwnership));
    ASSERT_TRUE(files.createDirectory("/var/x", {std::nullopt, std::nullopt, 0750}, false));
  });
  root.makeDirectory("/var/x/of somebody");
  EXPECT_EQ(undo().state, State::undoable);
  EXPECT_TRUE(root.exists("/var/x/of somebody")) << "what is in a directory keeps it";
  EXPECT_EQ(root.read("/etc/a"), "old a");
}

TEST_F(LastChangeTest, TakesAnEditForOneThatCameBeforeItWasTidiedUp) {
  files.startRequest();
  files.begin();
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "new a", kOwnership));
  ASSERT_TRUE(files.endUndoably());
  files.finishRequest(false);
  // Later than the end of the request, by the clock that dates changes.
  struct stat ended {};
  struct stat edited {};
  ASSERT_EQ(::stat(root.hostPath(kHome + "/undoable").c_str(), &ended), 0);
  do {
    edit("/etc/a", "n3w a");
    ASSERT_EQ(::stat(root.hostPath("/etc/a").c_str(), &edited), 0);
  } while (edited.st_ctim.tv_sec == ended.st_ctim.tv_sec && edited.st_ctim.tv_nsec <= ended.st_ctim.tv_nsec);
  files.tidyUp();
  EXPECT_THAT(undo().files, ElementsAre("/etc/a"));
  EXPECT_EQ(root.read("/etc/a"), "n3w a");
}

TEST_F(LastChangeTest, HoldsWhenTheDaemonWritesTheSameContentAnew) {
  write("/etc/a", "new a");
  files.startRequest();
  ASSERT_EQ(replaceKeepingBackup(files, "/etc/a", "new a", kOwnership).outcome, ReplaceOutcome::replaced);
  files.finishRequest(false);
  files.tidyUp();
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "old a");
  EXPECT_EQ(root.read("/etc/a.bak"), "older a");
}

TEST_F(LastChangeTest, IsKeptWhenTheDaemonDiesBeforeItHasTidiedUp) {
  const auto before = everything();
  files.startRequest();
  files.begin();
  changeEverything();
  ASSERT_TRUE(files.endUndoably());
  restart();
  EXPECT_THAT(root.list(kHome), ElementsAre("last"));
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(everything(), before);
}

TEST_F(LastChangeTest, IsKeptWhenTheDaemonDiesWhileItTidiesUp) {
  write("/etc/a", "first");
  files.startRequest();
  files.begin();
  ASSERT_TRUE(writeAtomically(files, "/etc/a", "second", kOwnership));
  ASSERT_TRUE(files.endUndoably());
  std::filesystem::rename(root.hostPath(kHome + "/last"), root.hostPath(kHome + "/kept"));
  restart();
  EXPECT_THAT(root.list(kHome), ElementsAre("last"));
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "first");
}

// An undo puts files back that the older journal holds, too: its removal changes the times of these files.
TEST_F(LastChangeTest, IsKeptWhenTheDaemonDiesWhileItTidiesUpAfterAnUndo) {
  write("/etc/a", "new a");
  ASSERT_EQ(undo().state, State::undoable);
  std::filesystem::rename(root.hostPath(kHome + "/last"), root.hostPath(kHome + "/undoable"));
  root.makeDirectory(kHome + "/kept/present/+etc");
  std::filesystem::create_hard_link(root.hostPath("/etc/a"), root.hostPath(kHome + "/kept/present/+etc/a"));
  restart();
  EXPECT_THAT(root.list(kHome), ElementsAre("last"));
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(root.read("/etc/a"), "new a");
}

// A loss of power can take what was not flushed.
TEST_F(LastChangeTest, IsUndoneWithoutItsVersionsAsLongAsNobodyTouchesTheFiles) {
  for (const char* left : {"", "/etc/a"}) {
    write("/etc/a", "new a");
    root.write(kHome + "/last/versions", left);
    // The journal has got its name after that.
    std::filesystem::rename(root.hostPath(kHome + "/last"), root.hostPath(kHome + "/other"));
    std::filesystem::rename(root.hostPath(kHome + "/other"), root.hostPath(kHome + "/last"));
    ASSERT_EQ(undo().state, State::undoable) << left;
    EXPECT_EQ(root.read("/etc/a"), "old a");
  }
}

TEST_F(LastChangeTest, IsWholeOrNotThereAfterADeathInTheMidstOfItsUndo) {
  request([&] { changeEverything(); });
  const auto after = everything();
  files.startRequest();
  files.begin();
  ASSERT_EQ(files.undoLast().state, State::undoable);
  EXPECT_NE(everything(), after);
  restart();
  EXPECT_EQ(everything(), after);
  EXPECT_THAT(root.list(kHome), ElementsAre("last", "undone"));
}

TEST_F(LastChangeTest, CanBeUndoneAfterItsUndoWasCutOff) {
  const auto before = everything();
  request([&] { changeEverything(); });
  files.startRequest();
  files.begin();
  ASSERT_EQ(files.undoLast().state, State::undoable);
  files.fail();
  EXPECT_FALSE(files.end());
  files.finishRequest(false);
  ASSERT_EQ(undo().state, State::undoable);
  EXPECT_EQ(everything(), before);
}

TEST_F(LastChangeTest, CanBeReadWithoutBeingUndone) {
  request([&] { changeEverything(); });
  const auto now = everything();
  const auto former = files.filesBeforeLast();
  ASSERT_NE(former, nullptr);
  EXPECT_EQ(former->readFile("/private/etc/a", 100).value(), "old a");
  EXPECT_EQ(former->attributes("/etc/a").value().permissions, 0640U);
  EXPECT_TRUE(former->exists("/etc/b"));
  EXPECT_FALSE(former->exists("/etc/made"));
  EXPECT_EQ(former->attributes("/etc/made").error().code(), ENOENT);
  EXPECT_EQ(former->readFile("/etc/made", 100).error().code(), ENOENT);
  EXPECT_EQ(former->readFile("/private/etc/a.bak", 100).value(), "older a");
  EXPECT_EQ(former->readFile("/nowhere/a", 100).error().code(), ENOENT);
  EXPECT_THAT(former->listDirectory("/etc").value(), Contains("made")) << "as it is";
  EXPECT_EQ(everything(), now);
}

TEST_F(LastChangeTest, LetsNothingBeChangedThatIsReadOfIt) {
  write("/etc/a", "new a");
  const auto now = everything();
  const auto former = files.filesBeforeLast();
  EXPECT_EQ(former->createFile("/etc/a", "x", {}, Flush::now).error().code(), EROFS);
  EXPECT_EQ(former->copyFile("/etc/a", "/etc/x").error().code(), EROFS);
  EXPECT_EQ(former->rename("/etc/a", "/etc/x").error().code(), EROFS);
  EXPECT_EQ(former->exchange("/etc/a", "/etc/b").error().code(), EROFS);
  EXPECT_EQ(former->remove("/etc/a").error().code(), EROFS);
  EXPECT_EQ(former->createDirectory("/etc/x", {}, false).error().code(), EROFS);
  EXPECT_EQ(former->setOwnership("/etc/a", {}).error().code(), EROFS);
  EXPECT_TRUE(former->flush({"/etc/a"}));
  EXPECT_TRUE(former->syncDirectory("/etc"));
  EXPECT_EQ(everything(), now);
}

TEST_F(LastChangeTest, IsNotUndoneOutsideOfChangesThatBelongTogether) {
  write("/etc/a", "new a");
  files.startRequest();
  EXPECT_EQ(files.undoLast().state, State::failed);
  files.finishRequest(false);
  EXPECT_EQ(root.read("/etc/a"), "new a");
  EXPECT_THAT(platform.log.messages(kLogError), SizeIs(1));
}

TEST_F(LastChangeTest, CostsARequestNoFlushMore) {
  const auto flushesOf = [&](bool undoable) {
    platform.files.clearCalls();
    files.startRequest();
    files.begin();
    EXPECT_TRUE(writeAtomically(files, "/etc/a", undoable ? "one" : "other", kOwnership));
    EXPECT_TRUE(undoable ? files.endUndoably() : files.end());
    files.finishRequest(false);
    auto calls = platform.files.changes();
    files.tidyUp();
    return calls;
  };
  flushesOf(false);
  EXPECT_EQ(flushesOf(true), flushesOf(false));
}

}  // namespace

}  // namespace tessard
