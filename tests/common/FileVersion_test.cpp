#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "common/DurableReplace.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char* kPath = "/etc/sm.xml";
constexpr const char* kOther = "/etc/c2s.xml";
constexpr const char* kTemporary = "/etc/sm.xml.tmp";
const FileOwnership kOwnership{84, 0, 0600};

/// A file that was read, and an editor who does something to it before the writer's exchange.
class FileVersionTest : public testing::Test {
 protected:
  TestPlatform platform;
  ScratchRoot& root = platform.root;
  FaultyFileSystem& files = platform.files;

  FileVersion read(const char* path) { return versionOf(files.attributes(path).value(), root.read(path)); }

  void before(const std::string& operation, const std::function<void()>& edit) {
    files.beforeCall = [this, operation, edit](const FaultyFileSystem::Call& call) {
      if (call.operation != operation) return;
      const auto once = edit;
      files.beforeCall = nullptr;
      once();
    };
  }

  // As editors do that put a file's time back.
  void editInPlaceAndKeepTime(std::string_view content) {
    const FileTime modified = root.modified(kPath);
    root.write(kPath, content);
    root.setModified(kPath, modified);
  }

  void editByRename(std::string_view content) {
    root.write("/etc/fresh", content);
    ASSERT_TRUE(platform.posixFiles.rename("/etc/fresh", kPath));
  }

  ReplaceOutcome replace(const FileVersion& version) {
    ReplacementBatch batch(files);
    batch.stage(kPath, "ours", kOwnership, version);
    return batch.replace().front().outcome;
  }

  int write(const FileVersion& version) {
    const auto written = writeAtomically(files, kPath, "ours", kOwnership, version);
    return written ? 0 : written.error().code();
  }
};

TEST_F(FileVersionTest, ReplacesTheVersionThatWasRead) {
  root.write(kPath, "old");
  EXPECT_EQ(replace(read(kPath)), ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "ours");
  EXPECT_EQ(write(read(kPath)), 0);
}

TEST_F(FileVersionTest, KeepsWhatSomebodyElseHasWrittenMeanwhile) {
  const std::vector<std::function<void()>> edits = {
      [this] { root.write(kPath, "longer than it was"); },
      [this] { root.write(kPath, "new"); },
      [this] { editByRename("new"); },
      [this] { editInPlaceAndKeepTime("new"); },
  };
  for (const char* moment : {"createFile", "flush", "exchange"}) {
    for (const auto& edit : edits) {
      root.write(kPath, "old");
      const FileVersion version = read(kPath);
      std::string edited;
      before(moment, [&] {
        edit();
        edited = root.read(kPath);
      });
      EXPECT_EQ(replace(version), ReplaceOutcome::changedMeanwhile) << moment;
      EXPECT_EQ(root.read(kPath), edited) << moment;
      EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml")) << moment;
    }
  }
}

TEST_F(FileVersionTest, KeepsItInAWriteWithoutABackup) {
  for (const char* moment : {"createFile", "exchange"}) {
    root.write(kPath, "old");
    const FileVersion version = read(kPath);
    before(moment, [this] { editInPlaceAndKeepTime("new"); });
    EXPECT_EQ(write(version), ESTALE) << moment;
    EXPECT_EQ(root.read(kPath), "new") << moment;
    EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml")) << moment;
  }
}

TEST_F(FileVersionTest, IsToldByItsContentAloneForWhoHasWrittenIt) {
  root.write(kPath, "old");
  EXPECT_EQ(replace(versionOf("old")), ReplaceOutcome::replaced);
  EXPECT_EQ(write(versionOf("ours")), 0);
  root.write(kPath, "oust");
  EXPECT_EQ(write(versionOf("ours")), ESTALE);
  EXPECT_EQ(replace(versionOf("ours")), ReplaceOutcome::changedMeanwhile);
  EXPECT_EQ(root.read(kPath), "oust");
}

TEST_F(FileVersionTest, IsNoDirectory) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  root.remove(kPath);
  root.makeDirectory(kPath);
  EXPECT_EQ(replace(version), ReplaceOutcome::changedMeanwhile);
  EXPECT_EQ(write(version), ESTALE);
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
}

TEST_F(FileVersionTest, LetsAnEditAfterTheExchangeStandUponTheNewContent) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  before("syncDirectory", [this] { root.write(kPath, root.read(kPath) + " and theirs"); });
  EXPECT_EQ(replace(version), ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "ours and theirs");
}

TEST_F(FileVersionTest, ReplacesTheOthersOfABatch) {
  root.write(kPath, "old");
  root.write(kOther, "other");
  ReplacementBatch batch(files);
  batch.stage(kPath, "ours", kOwnership, read(kPath));
  batch.stage(kOther, "ours, too", kOwnership, read(kOther));
  root.write(kPath, "theirs");
  const auto replaced = batch.replace();
  ASSERT_THAT(replaced, SizeIs(2));
  EXPECT_EQ(replaced[0].outcome, ReplaceOutcome::changedMeanwhile);
  EXPECT_TRUE(isChangedMeanwhile(replaced[0].error));
  EXPECT_EQ(replaced[1].outcome, ReplaceOutcome::replaced);
  EXPECT_EQ(root.read(kPath), "theirs");
  EXPECT_EQ(root.read(kOther), "ours, too");
  EXPECT_THAT(root.list("/etc"), ElementsAre("c2s.xml", "c2s.xml.bak", "sm.xml"));
}

TEST_F(FileVersionTest, IsLookedForInEachOfVeryManyFiles) {
  constexpr int kFiles = 150;
  const auto pathOf = [](int i) { return "/etc/f" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) root.write(pathOf(i), "old");
  ReplacementBatch batch(files);
  for (int i = 0; i < kFiles; ++i) batch.stage(pathOf(i), "ours", kOwnership, read(pathOf(i).c_str()));
  const auto edited = [](int i) { return i % 50 == 49 || i == 64; };
  for (int i = 0; i < kFiles; ++i) {
    if (edited(i)) root.write(pathOf(i), "new");
  }
  const auto replaced = batch.replace();
  ASSERT_THAT(replaced, SizeIs(kFiles));
  for (int i = 0; i < kFiles; ++i) {
    const auto expected = edited(i) ? ReplaceOutcome::changedMeanwhile : ReplaceOutcome::replaced;
    EXPECT_EQ(replaced[static_cast<std::size_t>(i)].outcome, expected) << i;
    EXPECT_EQ(root.read(pathOf(i)), edited(i) ? "new" : "ours") << i;
  }
}

TEST_F(FileVersionTest, IsStillTheSameWhenOnlyItsOwnerOrModeWasChanged) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  root.setMode(kPath, 0640);
  EXPECT_EQ(replace(version), ReplaceOutcome::replaced);
}

TEST_F(FileVersionTest, OfAMissingFileIsAnotherOnceSomebodyMakesOne) {
  root.makeDirectory("/etc");
  EXPECT_EQ(write(FileVersion{}), 0);
  EXPECT_EQ(root.read(kPath), "ours");
  EXPECT_EQ(write(FileVersion{}), ESTALE);
  EXPECT_EQ(root.read(kPath), "ours");
}

TEST_F(FileVersionTest, IsAnotherWhenTheFileIsGone) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  root.remove(kPath);
  EXPECT_EQ(write(version), ESTALE);
  EXPECT_THAT(root.list("/etc"), IsEmpty());
}

TEST_F(FileVersionTest, IsNotReplacedWhenItCannotBeLookedAt) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  files.failPath("readFile", ".tmp", EMFILE);
  EXPECT_EQ(write(version), EMFILE);
  EXPECT_THAT(root.list("/etc"), ElementsAre("sm.xml"));
  EXPECT_EQ(replace(version), ReplaceOutcome::notExchanged);
  EXPECT_EQ(root.read(kPath), "old");
  EXPECT_EQ(root.read(kTemporary), "ours");
}

TEST_F(FileVersionTest, IsLeftUnderTheTemporaryNameWhenItCannotComeBack) {
  root.write(kPath, "old");
  const FileVersion version = read(kPath);
  root.write(kPath, "theirs");
  files.failNth("exchange", 2, EROFS);
  EXPECT_EQ(replace(version), ReplaceOutcome::notExchangedBack);
  EXPECT_EQ(root.read(kPath), "ours");
  EXPECT_EQ(root.read(kTemporary), "theirs");
  EXPECT_THAT(files.journal(), Not(Contains("remove /etc/sm.xml.tmp")));
}

}  // namespace

}  // namespace tessard
