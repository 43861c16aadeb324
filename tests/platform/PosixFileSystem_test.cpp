#include "platform/PosixFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "tests/support/ScratchRoot.h"
#include "tests/support/TestPlatform.h"

// Where paths lead, what is read, and how names change.

namespace tessard {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kLimit = 1024;

template <class T>
int codeOf(const Result<T>& result) {
  return result ? 0 : result.error().code();
}

class PosixFileSystemTest : public testing::Test {
 protected:
  ScratchRoot root;
  PosixFileSystem files{root.path(), ownersForTests()};
};

// Every operation once, with one path where it takes one and in each place where it takes two.
std::vector<std::pair<std::string, std::function<int(PosixFileSystem&, std::string_view)>>> allOperations() {
  using Path = std::string_view;
  return {
      {"attributes", [](PosixFileSystem& files, Path path) { return codeOf(files.attributes(path)); }},
      {"readFile", [](PosixFileSystem& files, Path path) { return codeOf(files.readFile(path, kLimit)); }},
      {"createFile",
       [](PosixFileSystem& files, Path path) { return codeOf(files.createFile(path, "", {}, Flush::now)); }},
      {"copyFile from",
       [](PosixFileSystem& files, Path path) { return codeOf(files.copyFile(path, "/new")); }},
      {"copyFile to", [](PosixFileSystem& files, Path path) { return codeOf(files.copyFile("/old", path)); }},
      {"rename from", [](PosixFileSystem& files, Path path) { return codeOf(files.rename(path, "/new")); }},
      {"rename to", [](PosixFileSystem& files, Path path) { return codeOf(files.rename("/old", path)); }},
      {"exchange first",
       [](PosixFileSystem& files, Path path) { return codeOf(files.exchange(path, "/old")); }},
      {"exchange second",
       [](PosixFileSystem& files, Path path) { return codeOf(files.exchange("/old", path)); }},
      {"remove", [](PosixFileSystem& files, Path path) { return codeOf(files.remove(path)); }},
      {"createDirectory",
       [](PosixFileSystem& files, Path path) { return codeOf(files.createDirectory(path, {}, false)); }},
      {"createDirectory with parents",
       [](PosixFileSystem& files, Path path) { return codeOf(files.createDirectory(path, {}, true)); }},
      {"setOwnership",
       [](PosixFileSystem& files, Path path) {
         return codeOf(files.setOwnership(path, {std::nullopt, std::nullopt, 0600}));
       }},
      {"listDirectory", [](PosixFileSystem& files, Path path) { return codeOf(files.listDirectory(path)); }},
      {"syncDirectory", [](PosixFileSystem& files, Path path) { return codeOf(files.syncDirectory(path)); }},
  };
}

TEST_F(PosixFileSystemTest, RefusesAPathThatIsNotAbsolute) {
  root.write("/old", "kept");
  for (const auto& [name, operation] : allOperations()) {
    EXPECT_EQ(operation(files, "etc/file"), EINVAL) << name;
    EXPECT_EQ(operation(files, ""), EINVAL) << name;
  }
  EXPECT_FALSE(files.exists("etc"));
  EXPECT_FALSE(files.exists(""));
}

TEST_F(PosixFileSystemTest, RefusesAPathWithANulByteInsteadOfCuttingItShort) {
  root.write("/old", "kept");
  root.write("/etc/file", "kept");
  const std::string path("/etc/file\0.xml", 14);
  for (const auto& [name, operation] : allOperations()) EXPECT_EQ(operation(files, path), EINVAL) << name;
  EXPECT_FALSE(files.exists(path));
  EXPECT_EQ(root.read("/etc/file"), "kept");
}

TEST_F(PosixFileSystemTest, RefusesANameThatIsTooLong) {
  root.write("/old", "kept");
  const std::string path = "/etc/" + std::string(300, 'n');
  for (const auto& [name, operation] : allOperations())
    EXPECT_EQ(operation(files, path), ENAMETOOLONG) << name;
  EXPECT_FALSE(files.exists(path));
}

TEST_F(PosixFileSystemTest, RefusesAPathThatIsTooLong) {
  std::string path;
  while (path.size() < 5000) path += "/directory";
  EXPECT_EQ(codeOf(files.createDirectory(path, {}, true)), ENAMETOOLONG);
  EXPECT_FALSE(root.exists("/directory"));
}

TEST_F(PosixFileSystemTest, FailsWhereAFileStandsInPlaceOfAParent) {
  root.write("/old", "kept");
  root.write("/etc/file", "kept");
  for (const auto& [name, operation] : allOperations()) {
    EXPECT_EQ(operation(files, "/etc/file/below"), ENOTDIR) << name;
  }
  EXPECT_FALSE(files.exists("/etc/file/below"));
  EXPECT_EQ(root.read("/etc/file"), "kept");
}

TEST_F(PosixFileSystemTest, FailsForLinksThatLeadRoundInACircle) {
  root.makeLink("/etc/one", "two");
  root.makeLink("/etc/two", "one");
  EXPECT_EQ(codeOf(files.attributes("/etc/one")), ELOOP);
  EXPECT_EQ(codeOf(files.createFile("/etc/one/file", "", {}, Flush::now)), ELOOP);
  EXPECT_FALSE(files.exists("/etc/one"));
}

TEST_F(PosixFileSystemTest, TellsWhyItsRootCannotBeOpened) {
  PosixFileSystem nowhere(root.hostPath("/nowhere"));
  EXPECT_EQ(codeOf(nowhere.attributes("/")), ENOENT);
  EXPECT_EQ(codeOf(nowhere.createFile("/file", "", {}, Flush::now)), ENOENT);
  EXPECT_FALSE(nowhere.exists("/"));
  root.write("/file", "");
  PosixFileSystem noDirectory(root.hostPath("/file"));
  EXPECT_EQ(codeOf(noDirectory.listDirectory("/")), ENOTDIR);
}

TEST_F(PosixFileSystemTest, SeesTheWholeMachineWithoutARoot) {
  root.write("/file", "content");
  PosixFileSystem machine;
  EXPECT_EQ(machine.readFile(root.hostPath("/file"), kLimit).value(), "content");
}

TEST_F(PosixFileSystemTest, StaysInItsRootWhenTheRootIsRenamed) {
  root.write("/inner/file", "content");
  PosixFileSystem inner(root.hostPath("/inner"));
  std::filesystem::rename(root.hostPath("/inner"), root.hostPath("/moved"));
  EXPECT_EQ(inner.readFile("/file", kLimit).value(), "content");
}

TEST_F(PosixFileSystemTest, FollowsTheLinksOfThePrivateDirectories) {
  ASSERT_TRUE(files.createDirectory("/private/etc/jabberd_notification", {}, false));
  ASSERT_TRUE(files.createFile("/private/etc/jabberd_notification/sm.xml", "<sm/>", {}, Flush::now));
  EXPECT_EQ(files.readFile("/etc/jabberd_notification/sm.xml", kLimit).value(), "<sm/>");
}

TEST_F(PosixFileSystemTest, FollowsAnAbsoluteLinkWithinTheRoot) {
  root.write("/var/data/file", "inside");
  root.makeLink("/etc/data", "/var/data");
  EXPECT_EQ(files.readFile("/etc/data/file", kLimit).value(), "inside");
  ASSERT_TRUE(files.createFile("/etc/data/new", "made", {}, Flush::now));
  EXPECT_EQ(root.read("/var/data/new"), "made");
}

TEST_F(PosixFileSystemTest, DoesNotLetALinkLeadOutOfTheRoot) {
  ScratchRoot outside;
  outside.write("/secret", "secret");
  root.makeLink("/absolute", outside.path());
  root.makeLink("/relative", "../../../../../../../.." + outside.path());
  root.makeLink("/file", outside.hostPath("/secret"));
  for (const std::string link : {"/absolute", "/relative"}) {
    EXPECT_FALSE(files.exists(link + "/secret"));
    EXPECT_EQ(codeOf(files.readFile(link + "/secret", kLimit)), ENOENT);
    EXPECT_EQ(codeOf(files.createFile(link + "/planted", "", {}, Flush::now)), ENOENT);
    EXPECT_EQ(codeOf(files.createDirectory(link + "/planted", {}, true)), ENOENT);
    EXPECT_EQ(codeOf(files.remove(link + "/secret")), ENOENT);
    EXPECT_EQ(codeOf(files.rename(link + "/secret", "/stolen")), ENOENT);
  }
  EXPECT_EQ(codeOf(files.readFile("/file", kLimit)), ENOENT);
  EXPECT_THAT(outside.list("/"), ElementsAre("etc", "private", "secret", "var"));
}

TEST_F(PosixFileSystemTest, EndsAtTheRootWithDotDot) {
  root.write("/etc/file", "inside");
  EXPECT_EQ(files.readFile("/../../../../../etc/file", kLimit).value(), "inside");
  EXPECT_EQ(codeOf(files.readFile("/../../../../../usr/bin/env", kLimit)), ENOENT);
}

TEST_F(PosixFileSystemTest, RefusesToMakeOrMoveWhatHasNoNameOfItsOwn) {
  root.write("/old", "kept");
  for (const std::string_view path : {"/etc/.", "/etc/.."}) {
    EXPECT_EQ(codeOf(files.createFile(path, "", {}, Flush::now)), EINVAL) << path;
    EXPECT_EQ(codeOf(files.remove(path)), EINVAL) << path;
    EXPECT_EQ(codeOf(files.rename("/old", path)), EINVAL) << path;
    EXPECT_EQ(codeOf(files.createDirectory(path, {}, false)), EINVAL) << path;
  }
  for (const std::string_view path : {"/", "/etc/"}) {
    EXPECT_EQ(codeOf(files.createFile(path, "", {}, Flush::now)), EISDIR) << path;
    EXPECT_EQ(codeOf(files.copyFile("/old", path)), EISDIR) << path;
    EXPECT_EQ(codeOf(files.rename("/old", path)), EISDIR) << path;
    EXPECT_EQ(codeOf(files.exchange("/old", path)), EISDIR) << path;
    EXPECT_EQ(codeOf(files.remove(path)), EISDIR) << path;
  }
  EXPECT_EQ(root.read("/old"), "kept");
}

TEST_F(PosixFileSystemTest, KnowsWhatExists) {
  root.write("/etc/file", "");
  root.makeLink("/etc/link", "file");
  root.makeLink("/etc/dangling", "nothing");
  EXPECT_TRUE(files.exists("/"));
  EXPECT_TRUE(files.exists("/etc"));
  EXPECT_TRUE(files.exists("/etc/"));
  EXPECT_TRUE(files.exists("/etc/file"));
  EXPECT_TRUE(files.exists("/etc/link"));
  EXPECT_FALSE(files.exists("/etc/dangling"));
  EXPECT_FALSE(files.exists("/etc/nothing"));
  EXPECT_FALSE(files.exists("/etc/file/"));
}

TEST_F(PosixFileSystemTest, ReportsTheAttributesOfAFile) {
  root.write("/etc/file", "12345");
  root.setMode("/etc/file", 04640);
  root.setModified("/etc/file", {1795226427, 123456789});
  root.makeLink("/etc/link", "file");
  const auto attributes = files.attributes("/etc/link");
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes.value().kind, FileAttributes::Kind::regular);
  EXPECT_EQ(attributes.value().permissions, 04640U);
  EXPECT_EQ(attributes.value().size, 5U);
  EXPECT_EQ(attributes.value().modified, (FileTime{1795226427, 123456789}));
  struct stat status {};
  ASSERT_EQ(::stat(root.hostPath("/etc/file").c_str(), &status), 0);
  EXPECT_EQ(attributes.value().device, status.st_dev);
  EXPECT_EQ(attributes.value().inode, status.st_ino);
  EXPECT_EQ(attributes.value().changed, (FileTime{status.st_ctim.tv_sec, status.st_ctim.tv_nsec}));
}

TEST_F(PosixFileSystemTest, TellsTheKindsOfThingsApart) {
  ASSERT_EQ(::mkfifo(root.hostPath("/pipe").c_str(), 0600), 0);
  root.makeLink("/link", "etc");
  EXPECT_EQ(files.attributes("/etc").value().kind, FileAttributes::Kind::directory);
  EXPECT_EQ(files.attributes("/link").value().kind, FileAttributes::Kind::directory);
  EXPECT_EQ(files.attributes("/pipe").value().kind, FileAttributes::Kind::other);
  EXPECT_EQ(codeOf(files.attributes("/nothing")), ENOENT);
}

TEST_F(PosixFileSystemTest, ReadsAFileWhole) {
  std::string content("a\0b\n\xff", 5);
  for (int i = 0; i < 20; ++i) content += content;
  root.write("/file", content);
  EXPECT_EQ(files.readFile("/file", content.size()).value(), content);
  root.write("/empty", "");
  EXPECT_EQ(files.readFile("/empty", 0).value(), "");
}

TEST_F(PosixFileSystemTest, RefusesAFileBeyondTheLimit) {
  root.write("/file", std::string(kLimit + 1, 'x'));
  EXPECT_EQ(codeOf(files.readFile("/file", kLimit)), EFBIG);
  EXPECT_EQ(codeOf(files.readFile("/file", 0)), EFBIG);
  EXPECT_TRUE(files.readFile("/file", kLimit + 1));
}

TEST_F(PosixFileSystemTest, LimitsAFileWithoutASizeOfItsOwn) {
  PosixFileSystem machine;
  const std::string_view unsized = "/proc/self/status";
  ASSERT_EQ(machine.attributes(unsized).value().size, 0U);
  EXPECT_THAT(machine.readFile(unsized, 1 << 20).value(), testing::StartsWith("Name:"));
  EXPECT_EQ(codeOf(machine.readFile(unsized, 16)), EFBIG);
}

TEST_F(PosixFileSystemTest, ReadsNothingButFiles) {
  ASSERT_EQ(::mkfifo(root.hostPath("/pipe").c_str(), 0600), 0);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  root.hostPath("/socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  // Nobody ever writes to the pipe: a reader that waits would never come back.
  EXPECT_EQ(codeOf(files.readFile("/pipe", kLimit)), EINVAL);
  EXPECT_EQ(codeOf(files.readFile("/socket", kLimit)), EINVAL);
  EXPECT_EQ(codeOf(files.readFile("/etc", kLimit)), EINVAL);
  EXPECT_EQ(codeOf(files.readFile("/nothing", kLimit)), ENOENT);
  EXPECT_EQ(codeOf(files.copyFile("/pipe", "/copy")), EINVAL);
  EXPECT_EQ(codeOf(files.copyFile("/etc", "/copy")), EINVAL);
  EXPECT_FALSE(root.exists("/copy"));
  ::close(listener);
}

TEST_F(PosixFileSystemTest, ListsADirectoryInOrder) {
  for (const char* name : {"/data/b", "/data/a", "/data/.hidden", "/data/c/d"}) root.write(name, "");
  root.makeLink("/data/link", "nothing");
  EXPECT_THAT(files.listDirectory("/data").value(), ElementsAre(".hidden", "a", "b", "c", "link"));
  EXPECT_THAT(files.listDirectory("/data/").value(), testing::SizeIs(5));
  root.makeDirectory("/empty");
  EXPECT_THAT(files.listDirectory("/empty").value(), IsEmpty());
  EXPECT_EQ(codeOf(files.listDirectory("/data/a")), ENOTDIR);
  EXPECT_EQ(codeOf(files.listDirectory("/nothing")), ENOENT);
}

TEST_F(PosixFileSystemTest, FlushesDirectoriesOnly) {
  root.write("/file", "");
  EXPECT_TRUE(files.syncDirectory("/etc"));
  EXPECT_TRUE(files.syncDirectory("/"));
  EXPECT_EQ(codeOf(files.syncDirectory("/file")), ENOTDIR);
  EXPECT_EQ(codeOf(files.syncDirectory("/nothing")), ENOENT);
}

TEST_F(PosixFileSystemTest, RenamesOverAnOlderFile) {
  root.write("/etc/new", "new");
  root.write("/var/old", "old");
  ASSERT_TRUE(files.rename("/etc/new", "/var/old"));
  EXPECT_EQ(root.read("/var/old"), "new");
  EXPECT_FALSE(root.exists("/etc/new"));
  EXPECT_EQ(codeOf(files.rename("/etc/new", "/var/old")), ENOENT);
  EXPECT_EQ(root.read("/var/old"), "new");
}

TEST_F(PosixFileSystemTest, RenamesNoFileOverADirectory) {
  root.write("/etc/file", "kept");
  root.makeDirectory("/var/directory");
  EXPECT_EQ(codeOf(files.rename("/etc/file", "/var/directory")), EISDIR);
  EXPECT_EQ(root.read("/etc/file"), "kept");
}

TEST_F(PosixFileSystemTest, ReplacesALinkAndNotWhatItLeadsTo) {
  root.write("/etc/target", "target");
  root.write("/etc/new", "new");
  root.makeLink("/etc/link", "target");
  ASSERT_TRUE(files.rename("/etc/new", "/etc/link"));
  EXPECT_EQ(root.read("/etc/link"), "new");
  EXPECT_EQ(root.read("/etc/target"), "target");
}

TEST_F(PosixFileSystemTest, RenamesALinkItself) {
  root.write("/etc/target", "target");
  root.makeLink("/etc/link", "target");
  ASSERT_TRUE(files.rename("/etc/link", "/etc/moved"));
  EXPECT_TRUE(std::filesystem::is_symlink(root.hostPath("/etc/moved")));
  EXPECT_TRUE(root.exists("/etc/target"));
}

TEST_F(PosixFileSystemTest, ExchangesTwoNames) {
  root.write("/etc/one", "1");
  root.write("/var/two", "2");
  ASSERT_TRUE(files.exchange("/etc/one", "/var/two"));
  EXPECT_EQ(root.read("/etc/one"), "2");
  EXPECT_EQ(root.read("/var/two"), "1");
}

TEST_F(PosixFileSystemTest, ExchangesALinkItself) {
  root.write("/etc/target", "target");
  root.write("/etc/file", "file");
  root.makeLink("/etc/link", "target");
  ASSERT_TRUE(files.exchange("/etc/file", "/etc/link"));
  EXPECT_TRUE(std::filesystem::is_symlink(root.hostPath("/etc/file")));
  EXPECT_EQ(root.read("/etc/link"), "file");
  EXPECT_EQ(root.read("/etc/target"), "target");
}

TEST_F(PosixFileSystemTest, ExchangesNothingWhenOneNameIsFree) {
  root.write("/etc/one", "1");
  EXPECT_EQ(codeOf(files.exchange("/etc/one", "/etc/two")), ENOENT);
  EXPECT_EQ(codeOf(files.exchange("/etc/two", "/etc/one")), ENOENT);
  EXPECT_EQ(root.read("/etc/one"), "1");
  EXPECT_FALSE(root.exists("/etc/two"));
}

TEST_F(PosixFileSystemTest, RemovesFilesAndLinksButNoDirectories) {
  root.write("/etc/file", "");
  root.makeLink("/etc/dangling", "nothing");
  root.write("/etc/target", "kept");
  root.makeLink("/etc/link", "target");
  EXPECT_TRUE(files.remove("/etc/file"));
  EXPECT_TRUE(files.remove("/etc/dangling"));
  EXPECT_TRUE(files.remove("/etc/link"));
  EXPECT_THAT(root.list("/etc"), ElementsAre("target"));
  EXPECT_EQ(codeOf(files.remove("/etc/file")), ENOENT);
  EXPECT_EQ(codeOf(files.remove("/etc")), EISDIR);
}

}  // namespace

}  // namespace tessard
