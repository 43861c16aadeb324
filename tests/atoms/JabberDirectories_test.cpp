#include <unistd.h>

#include <cerrno>

#include "tests/atoms/AtomFixtures.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/atoms/RealTools.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class JabberDirectories : public JabberTest {
 protected:
  bool create(const std::string& path) {
    return atom->createDirectory_ownerID_groupID_permissions(path, 84, 80, 0750);
  }
  bool check(const std::string& path, unsigned ownerID, unsigned groupID, unsigned permissions) {
    return atom->directoryHasAttributes_ownerID_groupID_permissions(path, ownerID, groupID, permissions);
  }
  bool configure(const std::optional<std::string>& path) {
    return atom->configureDirectory_ownerID_groupID_permissions(path, 84, 80, 0750);
  }
  Lines debugLines() const { return platform.log.messages(kLogDebug); }
  FileAttributes attributesOf(const std::string& path) {
    return platform.posixFiles.attributes(path).value();
  }
};

TEST_F(JabberDirectories, AreMadeWithTheirParents) {
  EXPECT_TRUE(create("/var/a/b/chats"));
  EXPECT_EQ(platform.root.mode("/var/a/b/chats"), 0750U);
  EXPECT_EQ(platform.root.mode("/var/a/b"), 0755U);
  ASSERT_THAT(platform.files.calls("createDirectory"), SizeIs(1));
  const FileOwnership given = platform.files.calls("createDirectory")[0].ownership;
  EXPECT_EQ(given.owner, 84U);
  EXPECT_EQ(given.group, 80U);
  EXPECT_EQ(given.permissions, 0750U);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberDirectories, BelongToWhoTheyAreMadeFor) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  EXPECT_TRUE(create("/var/a/chats"));
  EXPECT_EQ(platform.root.owner("/var/a/chats"), 84U);
  EXPECT_EQ(platform.root.group("/var/a/chats"), 80U);
  EXPECT_EQ(platform.root.owner("/var/a"), 0U);
}

TEST_F(JabberDirectories, ThatAreThereAreMadeAlready) {
  platform.root.makeDirectory("/var/chats");
  platform.root.setMode("/var/chats", 0700);
  EXPECT_TRUE(create("/var/chats"));
  EXPECT_EQ(platform.root.mode("/var/chats"), 0700U);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberDirectories, CannotBeMadeWhereAFileIs) {
  platform.root.write("/var/chats", "a file");
  EXPECT_FALSE(create("/var/chats"));
  EXPECT_THAT(debugLines(), ElementsAre("creating directory '/var/chats' failed: 'File exists'"));
  EXPECT_FALSE(create("/var/chats/below"));
  EXPECT_EQ(debugLines().back(), "creating directory '/var/chats/below' failed: 'Not a directory'");
}

TEST_F(JabberDirectories, CannotBeMadeOnAFailingDisk) {
  platform.files.failAll("createDirectory", ENOSPC);
  EXPECT_FALSE(create("/var/chats"));
  EXPECT_THAT(debugLines(), ElementsAre("creating directory '/var/chats' failed: 'No space left on device'"));
  EXPECT_THAT(platform.log.lines(), IsEmpty()) << "debug lines only";
}

TEST_F(JabberDirectories, HaveTheAttributesThatTheyWereGiven) {
  ASSERT_TRUE(create("/var/chats"));
  const FileAttributes made = attributesOf("/var/chats");
  EXPECT_TRUE(check("/var/chats", made.owner, made.group, 0750));
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberDirectories, ThatAreMissingAreReported) {
  EXPECT_FALSE(check("/var/chats", 84, 80, 0750));
  EXPECT_THAT(debugLines(), ElementsAre("missing directory '/var/chats': 'No such file or directory'"));
}

TEST_F(JabberDirectories, WithEachWrongAttributeAreReported) {
  ASSERT_TRUE(create("/var/chats"));
  const FileAttributes made = attributesOf("/var/chats");
  EXPECT_FALSE(check("/var/chats", made.owner + 1, made.group, 0750));
  EXPECT_FALSE(check("/var/chats", made.owner, made.group + 1, 0750));
  EXPECT_FALSE(check("/var/chats", made.owner, made.group, 01777));
  EXPECT_THAT(debugLines(), ElementsAre("directory has incorrect owner, should be " +
                                            std::to_string(made.owner + 1) + ": '/var/chats'",
                                        "directory has incorrect group, should be " +
                                            std::to_string(made.group + 1) + ": '/var/chats'",
                                        "directory has incorrect permissions, should be 1777: '/var/chats'"));
}

TEST_F(JabberDirectories, ThatAreFilesWithEverythingWrongAreReportedFourTimes) {
  platform.root.write("/var/chats", "a file");
  const FileAttributes file = attributesOf("/var/chats");
  EXPECT_FALSE(check("/var/chats", file.owner + 7, file.group + 7, 0750));
  EXPECT_THAT(debugLines(), ElementsAre("file is not a directory: '/var/chats'",
                                        "directory has incorrect owner, should be " +
                                            std::to_string(file.owner + 7) + ": '/var/chats'",
                                        "directory has incorrect group, should be " +
                                            std::to_string(file.group + 7) + ": '/var/chats'",
                                        "directory has incorrect permissions, should be 750: '/var/chats'"));
}

TEST_F(JabberDirectories, AreNotUsableWithoutAPath) {
  grantAccess();
  EXPECT_FALSE(configure(std::nullopt));
  EXPECT_FALSE(atom->userHasDirectoryWriteAccess_userID(std::nullopt, 84));
  EXPECT_THAT(platform.log.messages(), IsEmpty());
  EXPECT_THAT(platform.files.calls(), IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberDirectories, AreMadeCheckedAndTriedWhenTheyAreMissing) {
  grantAccess();
  EXPECT_TRUE(configure("/var/chats"));
  EXPECT_EQ(platform.root.mode("/var/chats"), 0750U);
  ASSERT_THAT(platform.tasks.calls, SizeIs(1));
  const ScriptedTasks::Call& call = platform.tasks.calls[0];
  EXPECT_EQ(call.operation, "ZtRunTask");
  EXPECT_EQ(call.program, kAccessTool);
  EXPECT_THAT(call.arguments, ElementsAre(TaskArgument::text("84"), TaskArgument::path("/var/chats")));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_EQ(debugLines().back(), "directory configured correctly: '/var/chats'");
  EXPECT_TRUE(debugged("executing: " + kAccessTool));
}

TEST_F(JabberDirectories, ThatAreThereAreNeitherChangedNorCheckedWhenTheOwnerMayWrite) {
  grantAccess();
  platform.root.makeDirectory("/var/chats");
  platform.root.setMode("/var/chats", 0777);
  EXPECT_TRUE(configure("/var/chats"));
  EXPECT_EQ(platform.root.mode("/var/chats"), 0777U);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(debugLines(),
              ElementsAre("executing: " + kAccessTool, "directory configured correctly: '/var/chats'"));
}

TEST_F(JabberDirectories, AreUnusableWhenTheOwnerMayNotWrite) {
  grantAccess(1);
  platform.root.makeDirectory("/var/chats");
  EXPECT_FALSE(configure("/var/chats"));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "inaccessible directory: /var/chats")));
}

TEST_F(JabberDirectories, AreUnusableWhenTheyCannotBeMadeForAReasonThatIsTold) {
  grantAccess(1);
  platform.files.failAll("createDirectory", EROFS);
  EXPECT_FALSE(configure("/var/chats"));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "inaccessible directory: /var/chats"),
                          whole("W", "Reason of the inaccessible directory: Read-only file system")));
}

TEST_F(JabberDirectories, AreUsableWhateverBecomesOfMakingThemWhenTheToolGrantsAccess) {
  grantAccess();
  platform.files.failAll("createDirectory", EROFS);
  EXPECT_TRUE(configure("/var/chats")) << "the answer of the tool decides";
  EXPECT_THAT(debugLines(),
              ElementsAre("creating directory '/var/chats' failed: 'Read-only file system'",
                          "missing directory '/var/chats': 'No such file or directory'",
                          "executing: " + kAccessTool, "directory configured correctly: '/var/chats'"));
}

TEST_F(JabberDirectories, AreUnusableWithoutTheBundle) {
  EXPECT_FALSE(atom->userHasDirectoryWriteAccess_userID("/var/chats", 84));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "failed to find bundle with requested identifier")));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberDirectories, AreUnusableWithoutTheToolInTheBundle) {
  platform.bundles.add("com.velto.tessard_notification");
  platform.bundles.add("com.velto.other").resources["check_user_access"] = "/other";
  EXPECT_FALSE(atom->userHasDirectoryWriteAccess_userID("/var/chats", 84));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "failed to find bundle with requested identifier")));
}

TEST_F(JabberDirectories, AreUnusableForEveryOtherAnswerOfTheTool) {
  for (const int status : {1, 2, 127, 139, 256, -1}) {
    grantAccess(status);
    EXPECT_FALSE(atom->userHasDirectoryWriteAccess_userID("/var/chats", 84)) << status;
  }
}

TEST_F(JabberDirectories, AreTriedForTheUserWhoIsAskedAbout) {
  grantAccess();
  EXPECT_TRUE(atom->userHasDirectoryWriteAccess_userID("/var/a b", 4294967294U));
  EXPECT_THAT(platform.tasks.calls[0].arguments,
              ElementsAre(TaskArgument::text("4294967294"), TaskArgument::path("/var/a b")));
}

TEST_F(JabberDirectories, ForPidFilesAreMade) {
  platform.root.makeDirectory("/private/var/run");
  EXPECT_TRUE(atom->createServicePidDirectory());
  EXPECT_EQ(platform.root.mode(kRunDirectory), 0755U);
  const FileOwnership given = platform.files.calls("createDirectory")[0].ownership;
  EXPECT_EQ(given.owner, 84U);
  EXPECT_EQ(given.group, 1U);
  EXPECT_EQ(given.permissions, 0755U);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberDirectories, ForPidFilesStayWhenTheyAreThere) {
  platform.root.makeDirectory(kRunDirectory);
  platform.root.setMode(kRunDirectory, 0700);
  EXPECT_TRUE(atom->createServicePidDirectory());
  EXPECT_EQ(platform.root.mode(kRunDirectory), 0700U);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(JabberDirectories, ForPidFilesAreNotMadeBelowAMissingParent) {
  EXPECT_FALSE(atom->createServicePidDirectory());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole(
                  "E", "unable to create the pid directory for the service: 'No such file or directory'")));
}

/// The program that comes with the plug-in, run for real by root.
class RealAccess : public JabberDirectories {
 protected:
  RealTools tools{platform};

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can ask about another user";
    const std::string program = checkUserAccessProgram();
    platform.bundles.add("com.velto.tessard_notification").resources["check_user_access"] = program;
    tools.run(program);
  }
};

TEST_F(RealAccess, IsGrantedToADirectoryThatWasMadeForTheUser) {
  EXPECT_TRUE(configure("/var/chats"));
  EXPECT_EQ(platform.root.owner("/var/chats"), 84U);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(RealAccess, IsGrantedToAnExistingDirectoryOfAnotherOwnerThatAllMayWrite) {
  platform.root.makeDirectory("/var/chats");
  platform.root.setMode("/var/chats", 0777);
  EXPECT_TRUE(configure("/var/chats"));
  EXPECT_EQ(platform.root.owner("/var/chats"), 0U) << "nothing is changed";
  EXPECT_EQ(platform.root.mode("/var/chats"), 0777U);
}

TEST_F(RealAccess, IsDeniedToADirectoryOfAnotherOwner) {
  platform.root.makeDirectory("/var/chats");
  platform.root.setMode("/var/chats", 0755);
  EXPECT_FALSE(configure("/var/chats"));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "inaccessible directory: /var/chats")));
}

TEST_F(RealAccess, IsDeniedBehindADirectoryThatTheUserMayNotEnter) {
  platform.root.makeDirectory("/var/closed");
  platform.root.setMode("/var/closed", 0700);
  EXPECT_FALSE(configure("/var/closed/chats"));
  EXPECT_EQ(platform.root.owner("/var/closed/chats"), 84U) << "made, but of no use";
}

TEST_F(RealAccess, IsDeniedToWhatIsNoDirectory) {
  platform.root.write("/var/chats", "a file");
  platform.root.setMode("/var/chats", 0777);
  EXPECT_FALSE(configure("/var/chats"));
  EXPECT_FALSE(configure("/var/chats/below"));
  EXPECT_FALSE(configure("relative"));
  EXPECT_FALSE(configure(""));
}

}  // namespace
}  // namespace tessard
