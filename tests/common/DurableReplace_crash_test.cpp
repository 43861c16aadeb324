#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>

#include "common/DurableReplace.h"
#include "tests/support/TestPlatform.h"

// What a process that is killed at any instant leaves behind.

namespace tessard {

namespace {

constexpr const char* kPath = "/etc/jabberd.cfg";
constexpr const char* kBackup = "/etc/jabberd.cfg.bak";
constexpr int kKills = 40;
// Long enough to take several writes to the disk.
constexpr std::size_t kLength = 300000;

// One version: the same letter over and over, so that a mixture of two or a part of one shows.
std::string version(int number) {
  return std::string(kLength, static_cast<char>('a' + number % 26));
}

bool isWhole(const std::string& content) {
  return content.size() == kLength && content.find_first_not_of(content.front()) == std::string::npos;
}

class CrashTest : public testing::Test {
 protected:
  ScratchRoot root;
  std::mt19937 generator{20261121};

  // Lets a child write version after version, kills it after a random time and runs the check, many times.
  void killAgainAndAgain(const std::function<bool(FileSystem&, int)>& write,
                         const std::function<void()>& check) {
    for (int kill = 0; kill < kKills; ++kill) {
      killOneWriter(write);
      check();
      if (HasFatalFailure()) return;
    }
  }

 private:
  void killOneWriter(const std::function<bool(FileSystem&, int)>& write) {
    int started[2];
    ASSERT_EQ(::pipe(started), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      PosixFileSystem files(root.path(), ownersForTests());
      for (int number = 0;; ++number) {
        if (!write(files, number)) ::_exit(1);
        if (number == 0 && ::write(started[1], "s", 1) != 1) ::_exit(2);
      }
    }
    ::close(started[1]);
    char byte = 0;
    // The first version is written: from now on every instant is as good as any other.
    EXPECT_EQ(::read(started[0], &byte, 1), 1);
    ::close(started[0]);
    const auto microseconds = std::uniform_int_distribution<long>(0, 8000)(generator);
    const timespec pause{0, microseconds * 1000};
    ::ppoll(nullptr, 0, &pause, nullptr);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed by itself: " << WEXITSTATUS(status);
  }
};

TEST_F(CrashTest, LeavesAWholeFileAndAWholeBackupUnderTheirNames) {
  root.write(kPath, version(0));
  root.write(kBackup, version(1));
  killAgainAndAgain(
      [](FileSystem& files, int number) {
        return replaceKeepingBackup(files, kPath, version(number), {84, 0, 0600}).outcome ==
               ReplaceOutcome::replaced;
      },
      [&] {
        ASSERT_TRUE(root.exists(kPath));
        ASSERT_TRUE(isWhole(root.read(kPath)));
        ASSERT_EQ(root.mode(kPath), 0600U);
        ASSERT_TRUE(isWhole(root.read(kBackup)));
      });
}

TEST_F(CrashTest, LeavesAWholeFileThatWasWrittenWithoutABackup) {
  root.write(kPath, version(0));
  killAgainAndAgain(
      [](FileSystem& files, int number) {
        return writeAtomically(files, kPath, version(number), {84, 0, 0660}).ok();
      },
      [&] {
        ASSERT_TRUE(root.exists(kPath));
        ASSERT_TRUE(isWhole(root.read(kPath)));
        ASSERT_EQ(root.mode(kPath), 0660U);
      });
}

TEST_F(CrashTest, LeavesNoPartOfACopy) {
  root.write(kPath, version(0));
  killAgainAndAgain(
      [](FileSystem& files, int) {
        if (files.exists("/etc/copy") && !files.remove("/etc/copy")) return false;
        return files.copyFile(kPath, "/etc/copy").ok();
      },
      [&] {
        ASSERT_TRUE(!root.exists("/etc/copy") || isWhole(root.read("/etc/copy")));
        for (const std::string& name : root.list("/etc")) {
          ASSERT_TRUE(name == "copy" || name == "jabberd.cfg") << name;
        }
      });
}

// The names are never without a file for anybody who looks while they are exchanged.
TEST_F(CrashTest, NeverShowsAReaderAMissingOrPartialFile) {
  root.write(kPath, version(0));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    PosixFileSystem files(root.path(), ownersForTests());
    int failures = 0;
    for (int number = 0; number < 60; ++number) {
      const auto replaced = replaceKeepingBackup(files, kPath, version(number), {84, 0, 0600});
      if (replaced.outcome != ReplaceOutcome::replaced) ++failures;
    }
    ::_exit(failures == 0 ? 0 : 1);
  }
  PosixFileSystem files(root.path(), ownersForTests());
  int status = 0;
  int readings = 0;
  while (::waitpid(child, &status, WNOHANG) == 0) {
    const auto content = files.readFile(kPath, kLength);
    EXPECT_TRUE(content && isWhole(content.value()));
    ++readings;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(readings, 0);
}

}  // namespace

}  // namespace tessard
