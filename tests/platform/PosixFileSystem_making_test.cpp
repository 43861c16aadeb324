#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>

#include "platform/PosixFileSystem.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestPlatform.h"

// How files and directories are made, copied and given away.

namespace tessard {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kLimit = 1 << 24;

template <class T>
int codeOf(const Result<T>& result) {
  return result ? 0 : result.error().code();
}

// The process's umask, for one test.
class Umask {
 public:
  explicit Umask(mode_t mask) : before_(::umask(mask)) {}
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;
  ~Umask() { ::umask(before_); }

 private:
  mode_t before_;
};

// A limit on the size of files, which ends a write half way and then fails, as a full disk does.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    ignored_ = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, ignored_);
  }

 private:
  rlimit before_{};
  void (*ignored_)(int) = SIG_DFL;
};

// An account that owns nothing and the ids of somebody else, as plain numbers: nothing needs them to be
// listed.
constexpr uid_t kNobody = 65534;
constexpr uid_t kStranger = 12345;

// The error code of an operation that is carried out by a process that may give nothing away; 255 when there
// is no such process.
int codeWithoutRights(const std::function<Result<void>()>& operation) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) ::_exit(255);
    ::_exit(codeOf(operation()));
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return 255;
  return WEXITSTATUS(status);
}

volatile std::sig_atomic_t interruptions = 0;

void countInterruption(int) {
  interruptions = interruptions + 1;
}

// Signals that come all the time and do not let system calls carry on by themselves.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action {};
    action.sa_handler = countInterruption;
    ::sigaction(SIGALRM, &action, &before_);
    const itimerval often{{0, 200}, {0, 200}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &before_, nullptr);
  }

 private:
  struct sigaction before_ {};
};

class PosixFileSystemMakingTest : public testing::Test {
 protected:
  ScratchRoot root;
  OwnerMap owners = ownersForTests();
  PosixFileSystem files{root.path(), owners};

  // What is on disk for an id.
  uid_t userOnDisk(uid_t id) const { return owners.users.contains(id) ? owners.users.at(id) : id; }
  gid_t groupOnDisk(gid_t id) const { return owners.groups.contains(id) ? owners.groups.at(id) : id; }
};

TEST_F(PosixFileSystemMakingTest, MakesAFileWithContentOwnerGroupAndMode) {
  const std::string content("a\0b", 3);
  ASSERT_TRUE(files.createFile("/etc/file", content, {84, 80, 0660}, Flush::now));
  EXPECT_EQ(root.read("/etc/file"), content);
  EXPECT_EQ(root.owner("/etc/file"), userOnDisk(84));
  EXPECT_EQ(root.group("/etc/file"), groupOnDisk(80));
  EXPECT_EQ(root.mode("/etc/file"), 0660U);
  EXPECT_THAT(root.list("/etc"), ElementsAre("file"));
}

TEST_F(PosixFileSystemMakingTest, KeepsANewFilePrivateUnlessToldOtherwise) {
  const Umask open(0);
  ASSERT_TRUE(files.createFile("/etc/file", "secret", {}, Flush::now));
  EXPECT_EQ(root.mode("/etc/file"), 0600U);
  EXPECT_EQ(root.owner("/etc/file"), ::geteuid());
}

TEST_F(PosixFileSystemMakingTest, GivesTheModesThatAreAskedForWhateverTheUmask) {
  const Umask tight(0077);
  ASSERT_TRUE(files.createFile("/etc/file", "", {84, 0, 0664}, Flush::now));
  ASSERT_TRUE(files.createDirectory("/made/below/leaf", {84, 0, 0775}, true));
  EXPECT_EQ(root.mode("/etc/file"), 0664U);
  EXPECT_EQ(root.mode("/made"), 0755U);
  EXPECT_EQ(root.mode("/made/below"), 0755U);
  EXPECT_EQ(root.mode("/made/below/leaf"), 0775U);
}

TEST_F(PosixFileSystemMakingTest, PutsANewFileInPlaceOfAnOlderOne) {
  root.write("/etc/file", "older and longer");
  root.setMode("/etc/file", 0666);
  std::filesystem::create_hard_link(root.hostPath("/etc/file"), root.hostPath("/etc/other"));
  ASSERT_TRUE(files.createFile("/etc/file", "new", {}, Flush::now));
  EXPECT_EQ(root.read("/etc/file"), "new");
  EXPECT_EQ(root.mode("/etc/file"), 0600U);
  EXPECT_EQ(root.read("/etc/other"), "older and longer");
}

TEST_F(PosixFileSystemMakingTest, WritesThroughNoLink) {
  root.write("/etc/target", "target");
  root.makeLink("/etc/link", "target");
  root.makeLink("/etc/dangling", "planted");
  ASSERT_TRUE(files.createFile("/etc/link", "new", {}, Flush::now));
  ASSERT_TRUE(files.createFile("/etc/dangling", "new", {}, Flush::now));
  EXPECT_EQ(root.read("/etc/target"), "target");
  EXPECT_FALSE(root.exists("/etc/planted"));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(root.hostPath("/etc/link"))));
}

TEST_F(PosixFileSystemMakingTest, PutsNoFileInPlaceOfADirectory) {
  root.makeDirectory("/etc/directory");
  EXPECT_EQ(codeOf(files.createFile("/etc/directory", "", {}, Flush::now)), EISDIR);
  EXPECT_EQ(codeOf(files.createFile("/nowhere/file", "", {}, Flush::now)), ENOENT);
  EXPECT_FALSE(root.exists("/nowhere"));
}

TEST_F(PosixFileSystemMakingTest, LeavesNoFileWhenTheContentCannotBeWrittenWhole) {
  root.write("/etc/older", "older");
  const FileSizeLimit limit(100);
  EXPECT_EQ(codeOf(files.createFile("/etc/file", std::string(200, 'x'), {}, Flush::now)), EFBIG);
  EXPECT_EQ(codeOf(files.createFile("/etc/older", std::string(200, 'x'), {}, Flush::now)), EFBIG);
  EXPECT_THAT(root.list("/etc"), IsEmpty());
  EXPECT_TRUE(files.createFile("/etc/file", std::string(100, 'x'), {}, Flush::now));
}

TEST_F(PosixFileSystemMakingTest, LeavesNoCopyWhenTheContentCannotBeWrittenWhole) {
  root.write("/etc/file", std::string(200, 'x'));
  const FileSizeLimit limit(100);
  EXPECT_EQ(codeOf(files.copyFile("/etc/file", "/etc/copy")), EFBIG);
  EXPECT_THAT(root.list("/etc"), ElementsAre("file"));
}

TEST_F(PosixFileSystemMakingTest, MakesTheFileAllTheSameWhenItCannotBeGivenAway) {
  root.setMode("", 0777);
  EXPECT_EQ(codeWithoutRights([&] {
              return PosixFileSystem(root.path())
                  .createFile("/file", "content", {kStranger, kStranger, 0640}, Flush::now);
            }),
            0);
  EXPECT_EQ(root.read("/file"), "content");
  EXPECT_EQ(root.mode("/file"), 0640U);
  EXPECT_NE(root.owner("/file"), kStranger);
}

TEST_F(PosixFileSystemMakingTest, CopiesContentOwnerGroupAndMode) {
  const std::string content(300000, 'x');
  ASSERT_TRUE(files.createFile("/etc/file", content, {84, 80, 04750}, Flush::now));
  ASSERT_TRUE(files.copyFile("/etc/file", "/var/copy"));
  EXPECT_EQ(root.read("/var/copy"), content);
  EXPECT_EQ(root.owner("/var/copy"), userOnDisk(84));
  EXPECT_EQ(root.group("/var/copy"), groupOnDisk(80));
  EXPECT_EQ(root.mode("/var/copy"), root.mode("/etc/file"));
  EXPECT_EQ(root.read("/etc/file"), content);
  EXPECT_THAT(root.list("/var"), ElementsAre("copy"));
}

TEST_F(PosixFileSystemMakingTest, CopiesAnEmptyFileAndWhatALinkLeadsTo) {
  root.write("/etc/empty", "");
  root.makeLink("/etc/link", "empty");
  const Umask tight(0077);
  root.setMode("/etc/empty", 0644);
  ASSERT_TRUE(files.copyFile("/etc/link", "/etc/copy"));
  EXPECT_EQ(root.read("/etc/copy"), "");
  EXPECT_EQ(root.mode("/etc/copy"), 0644U);
  EXPECT_FALSE(std::filesystem::is_symlink(root.hostPath("/etc/copy")));
}

TEST_F(PosixFileSystemMakingTest, CopiesOnlyToANameThatIsFree) {
  root.write("/etc/file", "new");
  root.write("/etc/taken", "kept");
  root.makeLink("/etc/dangling", "planted");
  root.makeDirectory("/etc/directory");
  for (const std::string_view taken : {"/etc/taken", "/etc/dangling", "/etc/directory", "/etc/file"}) {
    EXPECT_EQ(codeOf(files.copyFile("/etc/file", taken)), EEXIST) << taken;
  }
  EXPECT_EQ(root.read("/etc/taken"), "kept");
  EXPECT_FALSE(root.exists("/etc/planted"));
  EXPECT_EQ(codeOf(files.copyFile("/etc/nothing", "/etc/free")), ENOENT);
  EXPECT_EQ(codeOf(files.copyFile("/etc/file", "/nowhere/free")), ENOENT);
  EXPECT_THAT(root.list("/etc"), ElementsAre("dangling", "directory", "file", "taken"));
}

TEST_F(PosixFileSystemMakingTest, CopiesToTheLongestNameThereIs) {
  root.write("/etc/file", "content");
  const std::string path = "/etc/" + std::string(255, 'n');
  ASSERT_TRUE(files.copyFile("/etc/file", path));
  EXPECT_EQ(root.read(path), "content");
}

TEST_F(PosixFileSystemMakingTest, MakesADirectoryWithOwnerGroupAndMode) {
  ASSERT_TRUE(files.createDirectory("/var/data/", {84, 80, 0750}, false));
  EXPECT_EQ(root.owner("/var/data"), userOnDisk(84));
  EXPECT_EQ(root.group("/var/data"), groupOnDisk(80));
  EXPECT_EQ(root.mode("/var/data"), 0750U);
  ASSERT_TRUE(files.createDirectory("/var/plain", {}, false));
  EXPECT_EQ(root.mode("/var/plain"), 0755U);
}

TEST_F(PosixFileSystemMakingTest, GivesTheParentsThatItMakesToTheCaller) {
  ASSERT_TRUE(files.createDirectory("/private/var/a/b//c/", {84, 84, 0700}, true));
  for (const std::string_view parent : {"/var/a", "/var/a/b"}) {
    EXPECT_EQ(root.owner(parent), ::geteuid());
    EXPECT_EQ(root.mode(parent), 0755U);
  }
  EXPECT_EQ(root.owner("/var/a/b/c"), userOnDisk(84));
  EXPECT_EQ(root.mode("/var/a/b/c"), 0700U);
}

TEST_F(PosixFileSystemMakingTest, LeavesTheParentsThatAreThereAsTheyAre) {
  root.makeDirectory("/var/there");
  root.setMode("/var/there", 0711);
  ASSERT_TRUE(files.createDirectory("/var/there/new", {}, true));
  EXPECT_EQ(root.mode("/var/there"), 0711U);
}

TEST_F(PosixFileSystemMakingTest, MakesNoParentsUnasked) {
  EXPECT_EQ(codeOf(files.createDirectory("/var/a/b", {}, false)), ENOENT);
  EXPECT_THAT(root.list("/var"), IsEmpty());
}

TEST_F(PosixFileSystemMakingTest, MakesNoDirectoryUnderANameThatIsTaken) {
  root.write("/var/file", "kept");
  root.makeDirectory("/var/directory");
  root.setMode("/var/directory", 0711);
  root.makeLink("/var/dangling", "planted");
  for (const bool withParents : {false, true}) {
    for (const std::string_view taken :
         {"/", "/var/file", "/var/directory", "/var/directory/", "/var/dangling"}) {
      EXPECT_EQ(codeOf(files.createDirectory(taken, {84, 84, 0700}, withParents)), EEXIST) << taken;
    }
  }
  EXPECT_EQ(root.mode("/var/directory"), 0711U);
  EXPECT_FALSE(root.exists("/var/planted"));
}

TEST_F(PosixFileSystemMakingTest, MakesNoParentThroughADanglingLink) {
  root.makeLink("/var/dangling", "planted");
  EXPECT_EQ(codeOf(files.createDirectory("/var/dangling/leaf", {}, true)), ENOENT);
  EXPECT_FALSE(root.exists("/var/planted"));
  root.write("/var/file", "kept");
  EXPECT_EQ(codeOf(files.createDirectory("/var/file/a/leaf", {}, true)), ENOTDIR);
}

TEST_F(PosixFileSystemMakingTest, TakesADirectoryBackThatCannotBeGivenAway) {
  root.setMode("", 0777);
  EXPECT_EQ(
      codeWithoutRights([&] {
        return PosixFileSystem(root.path()).createDirectory("/made/leaf", {kStranger, kStranger, 0750}, true);
      }),
      EPERM);
  EXPECT_THAT(root.list("/made"), IsEmpty());
}

TEST_F(PosixFileSystemMakingTest, LeavesNoCopyThatCannotBeGivenAway) {
  root.setMode("", 0777);
  // Everybody may read it, and it is root's.
  EXPECT_EQ(
      codeWithoutRights([&] { return PosixFileSystem().copyFile("/etc/passwd", root.hostPath("/copy")); }),
      EPERM);
  EXPECT_FALSE(root.exists("/copy"));
}

TEST_F(PosixFileSystemMakingTest, ChangesOnlyTheAttributesThatAreGiven) {
  ASSERT_TRUE(files.createFile("/etc/file", "kept", {84, 80, 0640}, Flush::now));
  ASSERT_TRUE(files.setOwnership("/etc/file", {std::nullopt, std::nullopt, 0604}));
  EXPECT_EQ(root.owner("/etc/file"), userOnDisk(84));
  EXPECT_EQ(root.group("/etc/file"), groupOnDisk(80));
  EXPECT_EQ(root.mode("/etc/file"), 0604U);
  ASSERT_TRUE(files.setOwnership("/etc/file", {std::nullopt, 0, std::nullopt}));
  EXPECT_EQ(root.owner("/etc/file"), userOnDisk(84));
  EXPECT_EQ(root.group("/etc/file"), groupOnDisk(0));
  EXPECT_EQ(root.mode("/etc/file"), 0604U);
  ASSERT_TRUE(files.setOwnership("/etc/file", {}));
  EXPECT_EQ(root.mode("/etc/file"), 0604U);
  EXPECT_EQ(root.read("/etc/file"), "kept");
}

TEST_F(PosixFileSystemMakingTest, KeepsTheSpecialBitsWhenOwnerAndModeAreGivenTogether) {
  ASSERT_TRUE(files.createFile("/etc/file", "", {}, Flush::now));
  ASSERT_TRUE(files.setOwnership("/etc/file", {84, 84, 04750}));
  EXPECT_EQ(root.mode("/etc/file"), 04750U);
}

TEST_F(PosixFileSystemMakingTest, ChangesDirectoriesAndFilesThatMayNotBeRead) {
  root.makeDirectory("/var/data");
  root.write("/etc/file", "");
  root.setMode("/etc/file", 0);
  EXPECT_TRUE(files.setOwnership("/var/data/", {84, 80, 0750}));
  EXPECT_TRUE(files.setOwnership("/etc/file", {84, 80, 0400}));
  EXPECT_EQ(root.mode("/var/data"), 0750U);
  EXPECT_EQ(root.mode("/etc/file"), 0400U);
  EXPECT_EQ(codeOf(files.setOwnership("/etc/nothing", {84, 80, 0400})), ENOENT);
}

TEST_F(PosixFileSystemMakingTest, ChangesNeitherALinkNorWhatItLeadsTo) {
  root.write("/etc/target", "");
  root.setMode("/etc/target", 0600);
  root.makeDirectory("/etc/directory");
  root.makeLink("/etc/link", "target");
  root.makeLink("/etc/directorylink", "directory");
  EXPECT_EQ(codeOf(files.setOwnership("/etc/link", {84, 84, 0666})), ELOOP);
  EXPECT_EQ(codeOf(files.setOwnership("/etc/directorylink/", {84, 84, 0777})), ELOOP);
  EXPECT_EQ(root.mode("/etc/target"), 0600U);
  EXPECT_EQ(root.owner("/etc/target"), ::geteuid());
  EXPECT_EQ(root.owner("/etc/link"), ::geteuid());
}

TEST_F(PosixFileSystemMakingTest, DoesNotWaitForAPipeThatItGivesAway) {
  ASSERT_EQ(::mkfifo(root.hostPath("/pipe").c_str(), 0600), 0);
  EXPECT_TRUE(files.setOwnership("/pipe", {84, 84, 0640}));
  EXPECT_EQ(root.mode("/pipe"), 0640U);
  EXPECT_TRUE(files.createFile("/pipe", "content", {}, Flush::now));
  EXPECT_EQ(root.read("/pipe"), "content");
}

TEST_F(PosixFileSystemMakingTest, CarriesOnWhenSignalsInterruptIt) {
  const std::string content(1 << 20, 'x');
  interruptions = 0;
  const Interruptions signals;
  for (int round = 0; round < 1000 && (round < 10 || interruptions < 50); ++round) {
    ASSERT_EQ(codeOf(files.createFile("/etc/file", content, {84, 80, 0640}, Flush::now)), 0);
    ASSERT_EQ(codeOf(files.copyFile("/etc/file", "/etc/copy")), 0);
    ASSERT_EQ(codeOf(files.flush({"/etc/copy"})), 0);
    ASSERT_EQ(codeOf(files.flush({"/etc/file", "/etc/copy"})), 0);
    ASSERT_EQ(codeOf(files.exchange("/etc/file", "/etc/copy")), 0);
    ASSERT_EQ(codeOf(files.syncDirectory("/etc")), 0);
    const auto read = files.readFile("/etc/file", kLimit);
    ASSERT_EQ(codeOf(read), 0);
    ASSERT_EQ(read.value(), content);
    ASSERT_EQ(codeOf(files.remove("/etc/copy")), 0);
  }
  EXPECT_GE(interruptions, 50);
}

TEST_F(PosixFileSystemMakingTest, FlushesOneFileOrSeveralInSeveralDirectories) {
  root.write("/etc/a", "a");
  root.write("/etc/b", "b");
  root.write("/var/c", "c");
  EXPECT_TRUE(files.flush({"/etc/a"}));
  EXPECT_TRUE(files.flush({"/etc/a", "/etc/b", "/private/var/c"}));
  EXPECT_EQ(codeOf(files.flush({"/etc/nothing"})), ENOENT);
  EXPECT_EQ(codeOf(files.flush({"/etc/a", "/nowhere/b"})), ENOENT);
  root.makeLink("/etc/link", "a");
  EXPECT_EQ(codeOf(files.flush({"/etc/link"})), ELOOP);
}

// Ids that the one user of this test can always use: its own.
class OwnerMapTest : public testing::Test {
 protected:
  ScratchRoot root;
  uid_t user = ::geteuid();
  gid_t group = ::getegid();
};

TEST_F(OwnerMapTest, StandsInForTheNamedIdsBothWays) {
  PosixFileSystem files(root.path(), {{{84, user}}, {{80, group}}});
  ASSERT_TRUE(files.createFile("/file", "", {84, 80, 0640}, Flush::now));
  ASSERT_TRUE(files.createDirectory("/directory", {84, 80, 0750}, false));
  for (const std::string_view path : {"/file", "/directory"}) {
    EXPECT_EQ(root.owner(path), user);
    EXPECT_EQ(root.group(path), group);
    EXPECT_EQ(files.attributes(path).value().owner, 84U);
    EXPECT_EQ(files.attributes(path).value().group, 80U);
    EXPECT_TRUE(files.setOwnership(path, {84, 80, std::nullopt}));
  }
}

TEST_F(OwnerMapTest, ReportsAnIdThatSeveralShareAsItIs) {
  PosixFileSystem files(root.path(), {{{84, user}, {17, user}}, {{80, group}, {1, group}}});
  ASSERT_TRUE(files.createFile("/file", "", {84, 80, 0640}, Flush::now));
  EXPECT_EQ(files.attributes("/file").value().owner, user);
  EXPECT_EQ(files.attributes("/file").value().group, group);
}

TEST_F(OwnerMapTest, CopiesWithTheIdsThatAreOnDisk) {
  PosixFileSystem files(root.path(), {{{84, user}, {user, 4711}}, {{80, group}, {group, 4711}}});
  root.write("/file", "");
  ASSERT_TRUE(files.copyFile("/file", "/copy"));
  EXPECT_EQ(root.owner("/copy"), user);
  EXPECT_EQ(root.group("/copy"), group);
}

}  // namespace

}  // namespace tessard
