#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <thread>

#include "platform/FileDescriptor.h"
#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using DirectoriesCheck = CheckTest;

// A file system of that size in place of a directory, for the test's own mount namespace.
class SmallDisk {
 public:
  SmallDisk(std::string place, const char* size) : place_(std::move(place)) {
    made = ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", place_.c_str(), "tmpfs", 0, size) == 0 && ::chown(place_.c_str(), 84, 84) == 0;
  }
  ~SmallDisk() {
    if (made) ::umount2(place_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool remountReadOnly() {
    return ::mount(nullptr, place_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  }
  bool made = false;

 private:
  std::string place_;
};

TEST_F(DirectoriesCheck, FindsNothingInWhatSetupHasMade) {
  EXPECT_THAT(found(kDirectoriesArea), IsEmpty());
}

TEST_F(DirectoriesCheck, FindsMissingOnesAfterSetupAlone) {
  root.remove("/var/db/korvbridge");
  EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("directory-missing"));
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kDirectoriesArea), IsEmpty());
}

TEST_F(DirectoriesCheck, FindsTheDirectoryOfSavedChatsWhenTheyAreOn) {
  changeConfig("router.xml", "<message_logging_enabled>0</", "<message_logging_enabled>1</");
  const auto findings = found(kDirectoriesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].subject, "/Library/Server/Parlance/Data/message_archives");
}

TEST_F(DirectoriesCheck, FindsAFileInADirectorysPlace) {
  root.remove("/var/db/korvbridge");
  root.write("/var/db/korvbridge", "");
  EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("not-a-directory"));
}

TEST_F(DirectoriesCheck, FindsALinkWhereTheDaemonFollowsNone) {
  root.remove("/var/db/korvbridge");
  makeDirectory("/elsewhere");
  root.makeLink("/var/db/korvbridge", "/elsewhere");
  EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("directory-link"));
}

TEST_F(DirectoriesCheck, FindsWhatTheServiceCannotUse) {
  root.setMode("/var/log/idavoll", 0550);
  const auto findings = found(kDirectoriesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "directory-closed");
  EXPECT_EQ(findings[0].subject, "/var/log/idavoll");
}

TEST_F(DirectoriesCheck, NamesTheDirectoryOnTheWayThatIsClosed) {
  if (geteuid() != 0) GTEST_SKIP() << "the user's own directories are the service's";
  root.setMode("/var/db", 0700);
  const auto findings = found(kDirectoriesArea);
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"/var/db\" is closed to it"));
}

TEST_F(DirectoriesCheck, FindsADirectoryThatEverybodyMayChange) {
  root.setMode("/var/db/idavoll", 0777);
  EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("directory-changeable"));
}

TEST_F(DirectoriesCheck, TellsHowMuchRoomIsLeft) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can mount";
  std::thread([this] {
    SmallDisk disk(root.hostPath("/var/db/korvbridge"), "size=50m,mode=0750");
    ASSERT_TRUE(disk.made);
    EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("space-low"));
    const FileDescriptor file(
        ::open(root.hostPath("/var/db/korvbridge/large").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
    ASSERT_EQ(::posix_fallocate(file.get(), 0, 45L * 1024 * 1024), 0);
    EXPECT_THAT(foundIds(kDirectoriesArea), ElementsAre("space-gone"));
    root.remove("/var/db/korvbridge/large");
  }).join();
}

TEST_F(DirectoriesCheck, FindsADiskThatBecameReadOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can mount";
  std::thread([this] {
    SmallDisk disk(root.hostPath("/var/db/korvbridge"), "mode=0750");
    ASSERT_TRUE(disk.made);
    ASSERT_TRUE(disk.remountReadOnly());
    EXPECT_THAT(foundIds(kDirectoriesArea), Contains("disk-read-only"));
  }).join();
}

}  // namespace
}  // namespace tessard
