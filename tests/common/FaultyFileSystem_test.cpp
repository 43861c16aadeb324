#include "tests/support/FaultyFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "tests/support/TestPlatform.h"

// The decorator that other tests make files fail with does what they rely on.

namespace tessard {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

template <class T>
int codeOf(const Result<T>& result) {
  return result ? 0 : result.error().code();
}

class FaultyFileSystemTest : public testing::Test {
 protected:
  TestPlatform platform;
  ScratchRoot& root = platform.root;
  FaultyFileSystem& files = platform.files;

  // Every operation once, each of which succeeds on files that are well.
  std::vector<int> callEverything() {
    root.remove("/area");
    root.makeDirectory("/area");
    std::vector<int> codes;
    codes.push_back(codeOf(files.createFile("/area/a", "content", {84, 80, 0640}, Flush::now)));
    codes.push_back(codeOf(files.copyFile("/area/a", "/area/b")));
    codes.push_back(codeOf(files.flush({"/area/b"})));
    codes.push_back(codeOf(files.exchange("/area/a", "/area/b")));
    codes.push_back(codeOf(files.rename("/area/b", "/area/c")));
    codes.push_back(codeOf(files.remove("/area/c")));
    codes.push_back(codeOf(files.createDirectory("/area/d", {84, std::nullopt, 0750}, false)));
    codes.push_back(codeOf(files.setOwnership("/area/d", {std::nullopt, 80, std::nullopt})));
    codes.push_back(codeOf(files.syncDirectory("/area")));
    codes.push_back(codeOf(files.readFile("/area/a", 100)));
    codes.push_back(codeOf(files.attributes("/area/a")));
    codes.push_back(codeOf(files.listDirectory("/area")));
    codes.push_back(files.exists("/area/a") ? 0 : ENOENT);
    return codes;
  }
};

TEST_F(FaultyFileSystemTest, PassesEverythingOnWhileNothingIsToFail) {
  EXPECT_THAT(callEverything(), testing::Each(0));
  EXPECT_THAT(root.list("/area"), ElementsAre("a", "d"));
  EXPECT_EQ(files.readFile("/area/a", 100).value(), "content");
  EXPECT_EQ(files.attributes("/area/a").value().size, 7U);
  EXPECT_THAT(files.listDirectory("/area").value(), ElementsAre("a", "d"));
}

TEST_F(FaultyFileSystemTest, RecordsEveryCall) {
  callEverything();
  EXPECT_THAT(files.journal(),
              ElementsAre("createFile /area/a", "copyFile /area/a /area/b", "flush /area/b",
                          "exchange /area/a /area/b", "rename /area/b /area/c", "remove /area/c",
                          "createDirectory /area/d", "setOwnership /area/d", "syncDirectory /area",
                          "readFile /area/a", "attributes /area/a", "listDirectory /area", "exists /area/a"));
  EXPECT_THAT(files.changes(), SizeIs(9));
  const auto made = files.calls("createFile");
  ASSERT_THAT(made, SizeIs(1));
  EXPECT_EQ(made.front().ownership.owner, 84U);
  EXPECT_EQ(made.front().ownership.group, 80U);
  EXPECT_EQ(made.front().ownership.permissions, 0640U);
  files.clearCalls();
  EXPECT_THAT(files.calls(), IsEmpty());
}

TEST_F(FaultyFileSystemTest, RecordsFailuresOfTheFilesThemselves) {
  EXPECT_EQ(codeOf(files.remove("/nothing")), ENOENT);
  EXPECT_EQ(files.calls().back().error, ENOENT);
}

TEST_F(FaultyFileSystemTest, FailsTheNthCallOnceAndDoesNotCarryItOut) {
  root.write("/one", "");
  root.write("/two", "");
  root.write("/three", "");
  files.failNth("remove", 2, EIO);
  EXPECT_EQ(codeOf(files.remove("/one")), 0);
  EXPECT_TRUE(files.exists("/two"));
  EXPECT_EQ(codeOf(files.remove("/two")), EIO);
  EXPECT_EQ(codeOf(files.remove("/three")), 0);
  EXPECT_TRUE(root.exists("/two"));
  EXPECT_EQ(files.calls("remove")[1].error, EIO);
}

TEST_F(FaultyFileSystemTest, CountsTheNthCallFromTheMomentItIsAskedFor) {
  EXPECT_EQ(codeOf(files.createFile("/one", "", {}, Flush::now)), 0);
  files.failNth("createFile", 1, EIO);
  EXPECT_EQ(codeOf(files.createFile("/two", "", {}, Flush::now)), EIO);
  EXPECT_EQ(codeOf(files.createFile("/three", "", {}, Flush::now)), 0);
}

TEST_F(FaultyFileSystemTest, FailsEveryOperationThatItIsToldToFail) {
  const std::vector<std::string> operations = {
      "createFile",   "copyFile",      "flush",    "exchange",   "rename",        "remove", "createDirectory",
      "setOwnership", "syncDirectory", "readFile", "attributes", "listDirectory", "exists"};
  for (std::size_t i = 0; i < operations.size(); ++i) {
    files.failAll(operations[i], EROFS);
    const auto codes = callEverything();
    // That a file does not exist is all that `exists` can say.
    EXPECT_EQ(codes[i], operations[i] == "exists" ? ENOENT : EROFS) << operations[i];
    files.heal();
  }
  EXPECT_THAT(callEverything(), testing::Each(0));
}

TEST_F(FaultyFileSystemTest, RecordsEachFileOfOneFlushAndFailsItForAnyOfThem) {
  root.write("/a", "");
  root.write("/b", "");
  EXPECT_EQ(codeOf(files.flush({"/a", "/b"})), 0);
  EXPECT_THAT(files.journal(), ElementsAre("flush /a", "flush /b"));
  files.failPath("flush", "/a", ENOSPC);
  EXPECT_EQ(codeOf(files.flush({"/a", "/b"})), ENOSPC);
}

TEST_F(FaultyFileSystemTest, FailsThePathsThatEndWithASuffix) {
  root.write("/a.xml", "");
  files.failPath(".bak", EACCES);
  EXPECT_EQ(codeOf(files.rename("/a.xml", "/a.xml.bak")), EACCES);
  EXPECT_EQ(codeOf(files.attributes("/b.bak")), EACCES);
  EXPECT_EQ(codeOf(files.attributes("/a.xml")), 0);
  EXPECT_TRUE(root.exists("/a.xml"));
}

TEST_F(FaultyFileSystemTest, FailsOneOperationOnOnePath) {
  root.write("/a.xml", "content");
  files.failPath("readFile", "/a.xml", EIO);
  EXPECT_EQ(codeOf(files.readFile("/a.xml", 100)), EIO);
  EXPECT_EQ(codeOf(files.readFile("/b.xml", 100)), ENOENT);
  EXPECT_EQ(codeOf(files.attributes("/a.xml")), 0);
}

TEST_F(FaultyFileSystemTest, HasNoRoomOnAFullDisk) {
  root.write("/old", "old");
  files.fillDisk();
  EXPECT_EQ(codeOf(files.createFile("/file", "", {}, Flush::now)), ENOSPC);
  EXPECT_EQ(codeOf(files.copyFile("/old", "/copy")), ENOSPC);
  EXPECT_EQ(codeOf(files.createDirectory("/directory", {}, true)), ENOSPC);
  EXPECT_EQ(codeOf(files.rename("/old", "/new")), 0);
}

TEST_F(FaultyFileSystemTest, LetsATestActBetweenTwoCalls) {
  root.write("/file", "first");
  files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (call.operation == "readFile") root.write("/file", "changed behind its back");
  };
  EXPECT_EQ(files.readFile("/file", 100).value(), "changed behind its back");
}

TEST_F(FaultyFileSystemTest, RefusesAnOperationThatItDoesNotKnow) {
  EXPECT_THROW(files.failAll("write", EIO), std::invalid_argument);
  EXPECT_THROW(files.failNth("createfile", 1, EIO), std::invalid_argument);
  EXPECT_THROW(files.failNth("createFile", 0, EIO), std::invalid_argument);
  EXPECT_THROW(files.failPath("move", "/a", EIO), std::invalid_argument);
  EXPECT_THROW(files.calls("creat"), std::invalid_argument);
}

TEST_F(FaultyFileSystemTest, MakesTheScratchRootLookLikeTheSystem) {
  root.write("/private/etc/jabberd_notification/sm.xml", "<sm/>");
  EXPECT_EQ(root.read("/etc/jabberd_notification/sm.xml"), "<sm/>");
  EXPECT_EQ(files.readFile("/private/etc/jabberd_notification/sm.xml", 100).value(), "<sm/>");
  root.setModified("/etc/jabberd_notification/sm.xml", {1000, 5});
  EXPECT_EQ(root.modified("/etc/jabberd_notification/sm.xml"), (FileTime{1000, 5}));
}

}  // namespace

}  // namespace tessard
