#include <gmock/gmock.h>

#include <vector>

#include "tests/journal/JournalFixtures.h"

// What is done with many files at once.

namespace tessard {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(JournalTest, MakesAndCopiesManyFilesAndTakesThemBack) {
  const auto before = everything();
  files.startRequest();
  const auto made = files.createFiles({{"/etc/a", "new a", kOwnership}, {"/etc/x", "new x", kOwnership}});
  ASSERT_TRUE(made[0] && made[1]);
  EXPECT_EQ(files.attributes("/etc/x").value().inode, made[1].value().inode);
  const FileCopies copies = files.copyFiles("/var/c", {"/etc/y", "/etc/a", "/etc/z"}, 100);
  EXPECT_EQ(copies.content, "old c");
  EXPECT_TRUE(copies.made[0] && copies.made[2]);
  EXPECT_EQ(copies.made[1].error().code(), EEXIST);
  EXPECT_EQ(root.read("/etc/z"), "old c");
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, FlushesManyNewFilesWhenTheyAreKept) {
  files.startRequest();
  ASSERT_TRUE(files.createFiles({{"/etc/x", "x", kOwnership}, {"/etc/z", "z", kOwnership}})[1]);
  ASSERT_TRUE(files.copyFiles("/var/c", {"/etc/y"}, 100).made[0]);
  disk.clearCalls();
  EXPECT_TRUE(files.finishRequest(false));
  EXPECT_THAT(disk.calls("flush"), SizeIs(3));
}

TEST_F(JournalTest, MakesAndCopiesNoneOfManyFilesThatCannotBeNoted) {
  const auto before = everything();
  files.startRequest();
  // Of two directories the journal knows one.
  ASSERT_TRUE(files.remove("/etc/link"));
  std::vector<int> codes;
  FileCopies copies;
  {
    const NoMoreFiles full;
    for (const auto& made : files.createFiles({{"/var/new", "x", kOwnership}})) {
      codes.push_back(made ? 0 : made.error().code());
    }
    copies = files.copyFiles("/etc/a", {"/var/copy"}, 100);
  }
  EXPECT_THAT(codes, ElementsAre(EMFILE));
  EXPECT_EQ(copies.made[0].error().code(), EMFILE);
  EXPECT_THAT(disk.calls("createFile"), IsEmpty());
  EXPECT_THAT(disk.calls("copyFile"), IsEmpty());
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);
}

TEST_F(JournalTest, NotesWhatStandsBesideTheLastOfManyFilesToo) {
  constexpr int kFiles = 60;
  const auto pathOf = [](int i) { return "/etc/many" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) {
    root.write(pathOf(i), "old");
    if (i % 7 == 0) root.write(backupPathFor(pathOf(i)), "older");
    if (i % 5 == 0) root.write(temporaryPathFor(pathOf(i)), "left over");
  }
  const auto before = everything();
  files.startRequest();
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(replaceKeepingBackup(files, pathOf(i), "new", kOwnership).outcome, ReplaceOutcome::replaced);
  }
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), before);

  files.startRequest();
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(replaceKeepingBackup(files, pathOf(i), "new", kOwnership).outcome, ReplaceOutcome::replaced);
  }
  ASSERT_TRUE(files.finishRequest(false));
  const auto between = everything();
  files.startRequest();
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(replaceKeepingBackup(files, pathOf(i), "newer", kOwnership).outcome, ReplaceOutcome::replaced);
  }
  EXPECT_FALSE(files.finishRequest(true));
  EXPECT_EQ(everything(), between) << "the backups of the request before are noted as well";
}

}  // namespace

}  // namespace tessard
