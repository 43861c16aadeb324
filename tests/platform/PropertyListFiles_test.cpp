#include "common/PropertyListFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "platform/PosixFileSystem.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

constexpr const char* kFile = "/settings.plist";

class PropertyListFilesTest : public testing::Test {
 protected:
  void put(const std::string& text) const {
    root.write(kFile, serializePropertyList(Dictionary{{"text", text}}).value());
  }

  // The clock long after the last change of any file.
  void letTimePass() {
    clock.setToMachine();
    clock.advance(60);
  }

  std::string held() {
    const auto found = lists.look(kFile);
    if (!found) return "failed: " + std::to_string(found.error().code());
    const std::string* text = found.value()->stringFor("text");
    return text ? *text : "no text";
  }

  int write(const std::string& text) {
    const auto written = lists.write(kFile, {{"text", text}}, {});
    return written ? 0 : written.error().code();
  }

  std::size_t readings() const { return files.calls("readFile").size(); }

  ScratchRoot root;
  PosixFileSystem posixFiles{root.path()};
  FaultyFileSystem files{posixFiles};
  FakeClock clock;
  PropertyListFiles lists{files, clock};
};

TEST_F(PropertyListFilesTest, ADirectoryThatCannotBeLookedAtIsTheReasonOfAFailedWrite) {
  files.failPath("attributes", "/there", EIO);
  root.makeDirectory("/there");
  EXPECT_EQ(lists.write("/there/settings.plist", {{"text", "a"}}, {}).error().code(), EIO);
  files.heal();
  EXPECT_TRUE(lists.write("/there/settings.plist", {{"text", "a"}}, {}));
}

TEST_F(PropertyListFilesTest, AnUnchangedFileIsReadOnce) {
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(lists.read(kFile).value(), (Dictionary{{"text", "a"}}));
  EXPECT_EQ(readings(), 1U);
}

TEST_F(PropertyListFilesTest, AChangedFileIsReadAgain) {
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
  put("of another length");
  EXPECT_EQ(held(), "of another length");
  EXPECT_EQ(readings(), 2U);
}

TEST_F(PropertyListFilesTest, AFileOfTheSameLengthUnderTheSameNameIsReadAgain) {
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
  root.remove(kFile);
  put("b");
  EXPECT_EQ(held(), "b");
}

TEST_F(PropertyListFilesTest, AFileWhoseTimeOfModificationWasPutBackIsReadAgain) {
  put("a");
  const FileTime modified = root.modified(kFile);
  letTimePass();
  EXPECT_EQ(held(), "a");
  // Until the file's change has a time of its own, which the kernel's clock may take a tick for.
  const auto changed = posixFiles.attributes(kFile).value().changed;
  do {
    put("b");
    root.setModified(kFile, modified);
  } while (posixFiles.attributes(kFile).value().changed == changed);
  EXPECT_EQ(held(), "b");
}

TEST_F(PropertyListFilesTest, AFileThatHasJustChangedIsReadAgainAsOneMoreChangeCouldHaveTheSameTime) {
  put("a");
  clock.time = posixFiles.attributes(kFile).value().changed;
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(readings(), 2U);
  letTimePass();
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(readings(), 3U);
}

TEST_F(PropertyListFilesTest, AFileThatIsReplacedWhileItIsReadIsReadAgain) {
  put("old");
  letTimePass();
  files.beforeCall = [this](const FaultyFileSystem::Call& call) {
    if (call.operation != "readFile") return;
    files.beforeCall = nullptr;
    put("new and longer");
  };
  EXPECT_EQ(held(), "new and longer");
  put("last of all, again longer");
  EXPECT_EQ(held(), "last of all, again longer");
}

TEST_F(PropertyListFilesTest, AFileThatIsGoneFailsAndIsReadAgainWhenItComesBack) {
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
  root.remove(kFile);
  EXPECT_EQ(held(), "failed: " + std::to_string(ENOENT));
  EXPECT_EQ(lists.read(kFile).error().code(), ENOENT);
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
}

TEST_F(PropertyListFilesTest, AFileThatBecameMalformedFailsAtEveryLook) {
  put("a");
  letTimePass();
  EXPECT_EQ(held(), "a");
  root.write(kFile, "<plist><array/></plist>");
  letTimePass();
  EXPECT_EQ(held(), "failed: 0");
  EXPECT_EQ(held(), "failed: 0");
  put("b");
  EXPECT_EQ(held(), "b");
}

TEST_F(PropertyListFilesTest, AFileThatCannotBeReadFails) {
  put("a");
  files.failNth("readFile", 1, EIO);
  EXPECT_EQ(held(), "failed: " + std::to_string(EIO));
  EXPECT_EQ(held(), "a");
}

TEST_F(PropertyListFilesTest, AFileWhoseAttributesCannotBeReadIsReadAtEveryLook) {
  put("a");
  letTimePass();
  files.failAll("attributes", EIO);
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(readings(), 2U);
}

TEST_F(PropertyListFilesTest, AWriteReplacesWhatWasLookedAtOrWrittenLast) {
  put("a");
  EXPECT_EQ(held(), "a");
  EXPECT_EQ(write("b"), 0);
  EXPECT_EQ(write("c"), 0);
  EXPECT_EQ(held(), "c");
}

TEST_F(PropertyListFilesTest, AWriteKeepsWhatSomebodyElseHasWrittenSince) {
  put("a");
  EXPECT_EQ(held(), "a");
  put("b");
  EXPECT_EQ(write("ours"), ESTALE);
  EXPECT_EQ(write("ours"), ESTALE);
  EXPECT_EQ(held(), "b");
  EXPECT_EQ(write("ours"), 0);
  put("c");
  EXPECT_EQ(write("ours"), ESTALE);
  EXPECT_EQ(held(), "c");
}

TEST_F(PropertyListFilesTest, AWriteKeepsAFileThatSomebodyElseHasMadeSince) {
  EXPECT_EQ(held(), "failed: " + std::to_string(ENOENT));
  put("theirs");
  EXPECT_EQ(write("ours"), ESTALE);
  EXPECT_EQ(held(), "theirs");
}

TEST_F(PropertyListFilesTest, AWriteLeavesAFileMissingThatSomebodyElseHasRemovedSince) {
  put("a");
  EXPECT_EQ(held(), "a");
  root.remove(kFile);
  EXPECT_EQ(write("ours"), ESTALE);
  EXPECT_FALSE(root.exists(kFile));
}

TEST_F(PropertyListFilesTest, AWriteReplacesWhateverIsThereWhenNobodyHasLooked) {
  put("a");
  EXPECT_EQ(write("b"), 0);
  root.write(kFile, "not a property list");
  EXPECT_EQ(held(), "failed: 0");
  EXPECT_EQ(write("c"), 0);
  EXPECT_EQ(held(), "c");
}

TEST_F(PropertyListFilesTest, AFileThatCouldNotBeReadForTheMomentIsNotWritten) {
  for (const char* operation : {"readFile", "attributes"}) {
    put("a");
    letTimePass();
    files.failNth(operation, 1, EMFILE);
    static_cast<void>(held());
    EXPECT_EQ(write("ours"), EMFILE) << operation;
    EXPECT_EQ(held(), "a") << operation;
    EXPECT_EQ(write("ours"), 0) << operation;
  }
}

TEST_F(PropertyListFilesTest, WorkThatBeginsWithALookWritesNothingThatIsMadeOfAnOlderOne) {
  put("a");
  const auto work = std::make_unique<PropertyListFiles::FirstLooks>(lists);
  EXPECT_EQ(held(), "a");
  put("b");
  EXPECT_EQ(held(), "b");
  EXPECT_EQ(write("made of a"), ESTALE);
  EXPECT_EQ(held(), "b");
}

TEST_F(PropertyListFilesTest, WorkThatBeginsWithALookMayWriteTwice) {
  for (const bool settled : {false, true}) {
    put("a");
    if (settled) letTimePass();
    EXPECT_EQ(held(), "a");
    const auto work = std::make_unique<PropertyListFiles::FirstLooks>(lists);
    EXPECT_EQ(held(), "a");
    EXPECT_EQ(write("b"), 0);
    EXPECT_EQ(held(), "b");
    EXPECT_EQ(write("c"), 0);
    EXPECT_EQ(held(), "c");
  }
}

TEST_F(PropertyListFilesTest, OtherWorkBeginsWithALookOfItsOwn) {
  put("a");
  {
    const PropertyListFiles::FirstLooks work(lists);
    EXPECT_EQ(held(), "a");
    put("b");
    EXPECT_EQ(held(), "b");
  }
  const PropertyListFiles::FirstLooks work(lists);
  EXPECT_EQ(held(), "b");
  EXPECT_EQ(write("ours"), 0);
}

}  // namespace
}  // namespace tessard
