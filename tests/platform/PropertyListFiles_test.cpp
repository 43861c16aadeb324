#include "common/PropertyListFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

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

  std::size_t readings() const { return files.calls("readFile").size(); }

  ScratchRoot root;
  PosixFileSystem posixFiles{root.path()};
  FaultyFileSystem files{posixFiles};
  FakeClock clock;
  PropertyListFiles lists{files, clock};
};

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

}  // namespace
}  // namespace tessard
