// What others put in the place of a log.

#include <sys/types.h>
#include <unistd.h>

#include "tests/logs/LogFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;

// The directory of the log belongs to a service, which may change it as it likes.
struct PlantedLogs : LogTest {
  const std::string service = "/var/log/service";

  PlantedLogs() {
    root.makeDirectory(service);
    root.write("/etc/shadow", "secret\n");
    if (::geteuid() == 0) {
      own(service, 84);
    } else {
      root.setMode(service, 0777);
    }
  }

  void own(const std::string& path, uid_t user) const {
    ASSERT_EQ(::lchown(root.hostPath(path).c_str(), user, user), 0);
  }
};

TEST_F(PlantedLogs, AreReadWhenTheyAreFiles) {
  root.write(kLog + ".1", "older\n");
  root.write(kLog, "newest\n");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("older", "newest"));
}

TEST_F(PlantedLogs, AreRefusedWhenTheyAreLinks) {
  for (const char* target : {"/etc/shadow", "../../../etc/shadow", "/none", "other"}) {
    root.makeLink(kLog, target);
    EXPECT_EQ(errorOf(newest(1)), ELOOP) << target;
    root.remove(kLog);
  }
}

TEST_F(PlantedLogs, AreLeftOutWhenOlderFilesAreLinks) {
  for (const char* name : {".1", ".1.gz"}) {
    root.makeLink(kLog + name, "/etc/shadow");
    root.write(kLog, "newest\n");
    const auto excerpt = read(newest(9));
    EXPECT_THAT(excerpt.lines, ElementsAre("newest"));
    EXPECT_EQ(excerpt.gap, LogGap::unreadable);
    root.remove(kLog + name);
  }
}

TEST_F(PlantedLogs, AreRefusedBelowALinkToADirectory) {
  root.makeDirectory("/elsewhere");
  root.write("/elsewhere/deep.log", "x\n");
  root.makeLink(service + "/deep", "/elsewhere");
  EXPECT_EQ(errorOf({.path = service + "/deep/deep.log", .lines = 1, .bytes = kPlenty}), ELOOP);
}

TEST_F(PlantedLogs, StayRefusedInADirectoryOfOursBelow) {
  root.makeDirectory(service + "/ours");
  root.makeLink(service + "/ours/x.log", "/etc/shadow");
  EXPECT_EQ(errorOf({.path = service + "/ours/x.log", .lines = 1, .bytes = kPlenty}), ELOOP);
}

TEST_F(PlantedLogs, AreRefusedWhenTheyAreSecondNamesOfOurFiles) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs files of two users";
  std::filesystem::create_hard_link(root.hostPath("/etc/shadow"), root.hostPath(kLog));
  EXPECT_EQ(errorOf(newest(1)), EPERM);
  // The service's own file may have two names.
  root.remove(kLog);
  root.write(kLog, "line\n");
  own(kLog, 84);
  std::filesystem::create_hard_link(root.hostPath(kLog), root.hostPath(kLog + "-too"));
  EXPECT_THAT(read(newest(1)).lines, ElementsAre("line"));
}

TEST_F(PlantedLogs, ThatAreNoFilesHoldNobodyUp) {
  ASSERT_EQ(::mkfifo(root.hostPath(kLog).c_str(), 0600), 0);
  EXPECT_EQ(errorOf(newest(1)), EINVAL);
  root.remove(kLog);
  root.makeDirectory(kLog);
  EXPECT_EQ(errorOf(newest(1)), EINVAL);
}

using LinksOfTheAdministrator = LogTest;

TEST_F(LinksOfTheAdministrator, AreFollowedWithinTheRoot) {
  root.write("/srv/logs/service/real.log", "line\n");
  root.makeLink(kLog.substr(0, kLog.rfind('/')), "/none");
  root.remove("/var/log/service");
  root.makeLink("/var/log/service", "../../srv/logs/service");
  root.makeLink("/srv/logs/service/service.log", "/srv/./logs//service/real.log");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("line"));
  // The root's own parent is the root.
  root.remove("/srv/logs/service/service.log");
  root.makeLink("/srv/logs/service/service.log", "../../../../../../../../srv/logs/service/real.log");
  EXPECT_THAT(read(newest(9)).lines, ElementsAre("line"));
}

TEST_F(LinksOfTheAdministrator, CannotLeadOutOfTheRoot) {
  root.makeLink("/link.log", "/etc/hostname");  // the machine has one, the root has none
  EXPECT_EQ(errorOf({.path = "/link.log", .lines = 1, .bytes = kPlenty}), ENOENT);
}

TEST_F(LinksOfTheAdministrator, ThatLeadInACircleAreAnError) {
  root.makeLink("/a.log", "/b.log");
  root.makeLink("/b.log", "/a.log");
  EXPECT_EQ(errorOf({.path = "/a.log", .lines = 1, .bytes = kPlenty}), ELOOP);
}

TEST_F(LinksOfTheAdministrator, PathsThatAreNoneAreRefused) {
  for (const std::string& path : std::vector<std::string>{"", "x.log", std::string("/x\0y", 4), "/"}) {
    EXPECT_EQ(errorOf({.path = path, .lines = 1, .bytes = kPlenty}), EINVAL) << path;
  }
  root.write("/file", "x\n");
  EXPECT_EQ(errorOf({.path = "/file/x.log", .lines = 1, .bytes = kPlenty}), ENOTDIR);
}

}  // namespace
}  // namespace tessard
