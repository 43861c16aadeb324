#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include "platform/PosixFileSystem.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestPlatform.h"

// What becomes of directories that are kept open.

namespace tessard {

namespace {

constexpr std::size_t kLimit = 1024;

class HoldingTest : public testing::Test {
 protected:
  HoldingTest() { files.holdDirectories(); }

  std::string content(const std::string& path) {
    const auto read = files.readFile(path, kLimit);
    return read ? read.value() : read.error().description();
  }

  // Of the machine, for what is done behind the file system's back.
  void move(const std::string& from, const std::string& to) {
    std::filesystem::rename(root.path() + from, root.path() + to);
  }
  void removeAll(const std::string& path) { std::filesystem::remove_all(root.path() + path); }

  static std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  }

  ScratchRoot root;
  PosixFileSystem files{root.path(), ownersForTests()};
};

TEST_F(HoldingTest, StaysInADirectoryThatIsRenamed) {
  root.write("/etc/a/file", "before");
  ASSERT_EQ(content("/etc/a/file"), "before");
  move("/etc/a", "/etc/b");
  root.write("/etc/a/file", "another");
  EXPECT_EQ(content("/etc/a/file"), "before");
  ASSERT_TRUE(files.createFile("/etc/a/new", "made", {}, Flush::later));
  EXPECT_EQ(root.read("/etc/b/new"), "made");
}

TEST_F(HoldingTest, FindsTheDirectoryByItsPathAgainAfterTheRelease) {
  root.write("/etc/a/file", "before");
  ASSERT_EQ(content("/etc/a/file"), "before");
  move("/etc/a", "/etc/b");
  root.write("/etc/a/file", "another");
  files.releaseDirectories();
  EXPECT_EQ(content("/etc/a/file"), "another");
}

TEST_F(HoldingTest, FindsTheDirectoryByItsPathAgainBeforeLong) {
  root.write("/etc/a/file", "before");
  ASSERT_EQ(content("/etc/a/file"), "before");
  move("/etc/a", "/etc/b");
  root.write("/etc/a/file", "another");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (content("/etc/a/file") != "another") {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

TEST_F(HoldingTest, FindsADirectoryThatWasRemovedAndMadeAnewAtOnce) {
  const auto anew = [&] {
    removeAll("/etc/a");
    root.write("/etc/a/file", "another");
  };
  root.write("/etc/a/file", "before");
  root.write("/etc/other", "other");
  ASSERT_EQ(content("/etc/a/file"), "before");
  anew();
  EXPECT_EQ(content("/etc/a/file"), "another");
  anew();
  EXPECT_TRUE(files.exists("/etc/a/file"));
  anew();
  EXPECT_EQ(files.attributes("/etc/a/file").value().size, 7U);
  anew();
  EXPECT_TRUE(files.createFile("/etc/a/new", "made", {}, Flush::later));
  anew();
  const auto copied = files.copyFile("/etc/other", "/etc/a/copy");
  EXPECT_TRUE(copied) << copied.error().description();
  EXPECT_EQ(content("/etc/a/copy"), "other");
  anew();
  EXPECT_TRUE(files.exchange("/etc/other", "/etc/a/file"));
  anew();
  EXPECT_TRUE(files.rename("/etc/a/file", "/etc/a/renamed"));
  anew();
  EXPECT_TRUE(files.createDirectory("/etc/a/below", {}, false));
  anew();
  EXPECT_TRUE(files.remove("/etc/a/file"));
}

TEST_F(HoldingTest, TellsThatAFileIsMissingWhereItsDirectoryIs) {
  root.write("/etc/a/file", "before");
  ASSERT_EQ(content("/etc/a/file"), "before");
  EXPECT_FALSE(files.exists("/etc/a/other"));
  removeAll("/etc/a");
  EXPECT_FALSE(files.exists("/etc/a/file"));
  EXPECT_EQ(files.remove("/etc/a/file").error().code(), ENOENT);
  EXPECT_EQ(files.createFile("/etc/a/file", "", {}, Flush::later).error().code(), ENOENT);
}

TEST_F(HoldingTest, FollowsTheLinksThatAreInADirectory) {
  root.write("/etc/a/file", "content");
  root.write("/file", "in the root");
  root.makeLink("/etc/a/link", "file");
  root.makeLink("/etc/a/absolute", "/file");
  root.makeLink("/etc/a/dangling", "nothing");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(content("/etc/a/link"), "content");
    EXPECT_EQ(content("/etc/a/absolute"), "in the root");
    EXPECT_EQ(files.attributes("/etc/a/link").value().kind, FileAttributes::Kind::regular);
    EXPECT_FALSE(files.exists("/etc/a/dangling"));
  }
}

TEST_F(HoldingTest, KeepsFewDirectoriesOpenAndNoneAfterTheRelease) {
  const auto before = openFiles();
  for (int number = 0; number < 100; ++number) {
    const std::string path = "/etc/" + std::to_string(number) + "/file";
    root.write(path, "content");
    EXPECT_EQ(content(path), "content");
  }
  EXPECT_GT(openFiles(), before);
  EXPECT_LE(openFiles(), before + 20);
  files.releaseDirectories();
  EXPECT_EQ(openFiles(), before);
  EXPECT_TRUE(files.exists("/etc/1/file"));
  EXPECT_EQ(openFiles(), before);
}

}  // namespace

}  // namespace tessard
