#include "platform/FileNotices.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <fstream>

#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

class FileNoticesTest : public testing::Test {
 protected:
  /// Whether there was a notice since the last time; then arms anew, as is asked for after a notice.
  bool noticed() {
    pollfd state{notices.descriptor(), POLLIN, 0};
    const bool readable = poll(&state, 1, 0) == 1;
    const auto any = notices.take();
    EXPECT_TRUE(any.ok());
    EXPECT_TRUE(readable || !any.value());
    EXPECT_FALSE(notices.take().value()) << "all were taken";
    if (any.value()) arm();
    return any.value();
  }

  void arm() {
    const auto armed = notices.arm();
    EXPECT_TRUE(armed.ok()) << armed.error().description();
  }

  void rename(const char* from, const char* to) {
    std::filesystem::rename(root.hostPath(from), root.hostPath(to));
  }

  ScratchRoot root;
  FileNotices notices = FileNotices::open(root.path(), {"/etc/hostname", "/etc/hosts"}).value();
};

TEST_F(FileNoticesTest, TellThatAFileWasMadeWrittenReplacedOrRemoved) {
  root.makeDirectory("/etc");
  arm();
  EXPECT_FALSE(noticed());
  root.write("/etc/hostname", "one");
  EXPECT_TRUE(noticed());
  root.write("/etc/hostname", "two");
  EXPECT_TRUE(noticed());
  root.write("/etc/new", "three");
  EXPECT_FALSE(noticed());
  rename("/etc/new", "/etc/hostname");
  EXPECT_TRUE(noticed());
  root.setMode("/etc/hostname", 0600);
  EXPECT_TRUE(noticed());
  rename("/etc/hostname", "/etc/away");
  EXPECT_TRUE(noticed());
  rename("/etc/away", "/etc/hosts");
  EXPECT_TRUE(noticed());
  root.remove("/etc/hosts");
  EXPECT_TRUE(noticed());
  EXPECT_FALSE(noticed());
}

TEST_F(FileNoticesTest, TellNothingOfOtherFilesAndOfReading) {
  root.write("/etc/hostname", "one");
  arm();
  root.write("/etc/passwd", "x");
  root.write("/etc/hostname.d/x", "x");
  root.write("/other", "x");
  root.remove("/etc/passwd");
  EXPECT_EQ(root.read("/etc/hostname"), "one");
  EXPECT_FALSE(noticed());
}

TEST_F(FileNoticesTest, TellOfDirectoriesThatAreMadeReplacedOrRemoved) {
  std::filesystem::remove_all(root.hostPath("/etc"));
  arm();
  EXPECT_FALSE(noticed());
  root.makeDirectory("/etc");
  EXPECT_TRUE(noticed());
  root.write("/etc/hostname", "one");
  EXPECT_TRUE(noticed());

  root.write("/etc.new/hostname", "two");
  EXPECT_FALSE(noticed());
  rename("/etc", "/etc.old");
  rename("/etc.new", "/etc");
  EXPECT_TRUE(noticed());
  root.write("/etc.old/hostname", "three");
  EXPECT_FALSE(noticed()) << "it is no longer the file that is watched";
  root.write("/etc/hostname", "four");
  EXPECT_TRUE(noticed());

  std::filesystem::remove_all(root.hostPath("/etc"));
  EXPECT_TRUE(noticed());
  EXPECT_FALSE(noticed());
}

TEST_F(FileNoticesTest, FollowLinksWithinTheRoot) {
  root.write("/run/name", "one");
  root.makeLink("/etc/hostname", "/run/name");
  arm();
  root.write("/run/name", "two");
  EXPECT_TRUE(noticed());
  root.write("/run/other", "three");
  EXPECT_FALSE(noticed());
  rename("/run/other", "/run/name");
  EXPECT_TRUE(noticed());
  root.remove("/etc/hostname");
  EXPECT_TRUE(noticed());
  root.write("/run/name", "four");
  EXPECT_FALSE(noticed());
}

TEST_F(FileNoticesTest, AreArmedOverALinkThatLeadsNowhere) {
  root.makeLink("/etc/hostname", "/nowhere");
  root.makeLink("/etc/hosts", "hosts");
  arm();
  root.remove("/etc/hostname");
  EXPECT_TRUE(noticed());
}

TEST_F(FileNoticesTest, DoNotPileUpWatches) {
  root.write("/etc/hostname", "one");
  for (int number = 0; number < 50; ++number) {
    arm();
    root.write("/etc/new", "two");
    rename("/etc/new", "/etc/hostname");
    EXPECT_TRUE(noticed());
  }
  const auto info = "/proc/self/fdinfo/" + std::to_string(notices.descriptor());
  std::ifstream file(info);
  int watches = 0;
  for (std::string line; std::getline(file, line);) watches += line.starts_with("inotify") ? 1 : 0;
  EXPECT_EQ(watches, 3) << "the root, /etc and the file";
}

TEST_F(FileNoticesTest, TellThatSomeWereLost) {
  root.write("/etc/hostname", "one");
  arm();
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int most = 0;
  limit >> most;
  if (most > 100'000) GTEST_SKIP() << "the queue is too long to be filled";
  for (int number = 0; number <= most; ++number) {
    root.write(number % 2 == 0 ? "/etc/a" : "/etc/b", "");
  }
  EXPECT_TRUE(noticed());
}

}  // namespace
}  // namespace tessard
