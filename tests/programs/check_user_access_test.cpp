#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/PosixTasks.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

// Ids that are no account's, so that only what a test says counts.
constexpr uid_t kUser = 61234;
constexpr gid_t kGroup = 61300;

class CheckUserAccess : public testing::Test {
 protected:
  ScratchRoot root;
  PosixTasks tasks{"/"};
  std::string tool = root.hostPath("/check_user_access");
  std::string directory = root.hostPath("/directory");

  void SetUp() override {
    std::filesystem::copy_file(CHECK_USER_ACCESS, tool);  // where every user can reach it
    root.makeDirectory("/directory");
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
  }

  static void needRoot() {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  void give(uid_t owner, gid_t group, mode_t mode) const {
    ASSERT_EQ(::chown(directory.c_str(), owner, group), 0);
    ASSERT_EQ(::chmod(directory.c_str(), mode), 0);
  }

  TaskResult run(const std::vector<std::string>& arguments) {
    std::vector<TaskArgument> texts;
    texts.reserve(arguments.size());
    for (const std::string& argument : arguments) texts.push_back(TaskArgument::text(argument));
    return tasks.launch_task(tool, texts);
  }

  // Runs the tool's command line behind another program's.
  TaskResult behind(std::string_view program, std::vector<std::string> arguments, const std::string& user) {
    arguments.insert(arguments.end(), {tool, user, directory});
    std::vector<TaskArgument> texts;
    texts.reserve(arguments.size());
    for (const std::string& argument : arguments) texts.push_back(TaskArgument::text(argument));
    return tasks.launch_task(program, texts);
  }

  // The same in a mount namespace of its own, after a script that may mount things there.
  TaskResult afterMounting(const std::string& script, const std::string& user) {
    return behind("/usr/bin/unshare", {"--mount", "/bin/sh", "-ec", script + "\nexec \"$@\"", "sh"}, user);
  }

  int accessOf(uid_t user) { return run({std::to_string(user), directory}).status; }

  void setAccessList(const std::string& entries) {
    const TaskResult result = tasks.launch_task(
        "/usr/bin/setfacl",
        {TaskArgument::text("-m"), TaskArgument::text(entries), TaskArgument::text(directory)});
    ASSERT_EQ(result.status, 0) << result.errorText;
  }
};

#define NEED_ROOT() \
  needRoot();       \
  if (IsSkipped()) return

TEST_F(CheckUserAccess, TheOwnerNeedsBothWritingAndSearching) {
  NEED_ROOT();
  for (const auto& [mode, expected] : {std::pair<mode_t, int>{0300, 0},
                                       {0700, 0},
                                       {0750, 0},
                                       {0200, 1},
                                       {0100, 1},
                                       {0500, 1},
                                       {0077, 1},
                                       {0000, 1}}) {
    give(kUser, kGroup, mode);
    EXPECT_EQ(accessOf(kUser), expected) << std::oct << mode;
  }
}

TEST_F(CheckUserAccess, OthersHaveWhatTheModeGivesToAll) {
  NEED_ROOT();
  give(0, 0, 0750);
  EXPECT_EQ(accessOf(kUser), 1);
  give(0, 0, 0703);
  EXPECT_EQ(accessOf(kUser), 0);
  give(0, 0, 0702);
  EXPECT_EQ(accessOf(kUser), 1);
}

TEST_F(CheckUserAccess, ANoComesWithItsReason) {
  NEED_ROOT();
  give(0, 0, 0755);
  const TaskResult result = run({std::to_string(kUser), directory});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errorText, "check_user_access: " + directory + ": Permission denied\n");
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(CheckUserAccess, AYesSaysNothing) {
  NEED_ROOT();
  give(kUser, kGroup, 0700);
  const TaskResult result = run({std::to_string(kUser), directory});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output + result.errorText, IsEmpty());
}

TEST_F(CheckUserAccess, TheGroupsOfTheCallerDoNotCount) {
  NEED_ROOT();
  give(0, 0, 0770);
  EXPECT_EQ(accessOf(kUser), 1) << "root's group is not the user's";
  const TaskResult result =
      behind("/usr/bin/setpriv", {"--groups", "0," + std::to_string(kGroup)}, std::to_string(kUser));
  EXPECT_EQ(result.status, 1);
}

TEST_F(CheckUserAccess, AUserWithoutAnAccountIsAloneInNobodysGroup) {
  NEED_ROOT();
  give(0, 65534, 0770);
  EXPECT_EQ(accessOf(kUser), 0);
  give(0, 65533, 0770);
  EXPECT_EQ(accessOf(kUser), 1);
}

TEST_F(CheckUserAccess, EveryGroupOfTheAccountCounts) {
  NEED_ROOT();
  root.write("/passwd", "root:x:0:0::/:/bin/sh\nmember:x:61234:61300::/:/bin/sh\n");
  // More groups than fit into the first attempt, with the one that matters at the end.
  std::string groups = "root:x:0:\n";
  for (int i = 0; i < 100; ++i)
    groups += "g" + std::to_string(i) + ":x:" + std::to_string(61400 + i) + ":member\n";
  root.write("/group", groups + "last:x:61999:other,member\nforeign:x:61998:other\n");
  const std::string script = "mount --bind " + root.hostPath("/passwd") + " /etc/passwd; mount --bind " +
                             root.hostPath("/group") + " /etc/group";
  for (const auto& [group, expected] :
       {std::pair<gid_t, int>{61300, 0}, {61400, 0}, {61999, 0}, {61998, 1}}) {
    give(0, group, 0770);
    const TaskResult result = afterMounting(script, std::to_string(kUser));
    EXPECT_EQ(result.status, expected) << group << " " << result.errorText;
  }
}

TEST_F(CheckUserAccess, AccessControlListsCount) {
  NEED_ROOT();
  give(0, 0, 0700);
  EXPECT_EQ(accessOf(kUser), 1);
  setAccessList("u:61234:rwx");
  EXPECT_EQ(accessOf(kUser), 0);
  EXPECT_EQ(accessOf(kUser + 1), 1) << "the list names one user";
  setAccessList("m::r-x");
  EXPECT_EQ(accessOf(kUser), 1) << "the mask takes writing away";
}

TEST_F(CheckUserAccess, AListThatTakesAccessAwayCountsToo) {
  NEED_ROOT();
  give(0, 0, 0777);
  setAccessList("u:61234:---");
  EXPECT_EQ(accessOf(kUser), 1);
  EXPECT_EQ(accessOf(kUser + 1), 0);
}

TEST_F(CheckUserAccess, GroupsOfAListCount) {
  NEED_ROOT();
  give(0, 0, 0700);
  setAccessList("g:65534:-wx");
  EXPECT_EQ(accessOf(kUser), 0);
}

TEST_F(CheckUserAccess, AParentThatTheUserCannotSearchIsANo) {
  NEED_ROOT();
  give(kUser, kGroup, 0700);
  ASSERT_EQ(::chmod(root.path().c_str(), 0700), 0);
  EXPECT_EQ(accessOf(kUser), 1);
  EXPECT_EQ(accessOf(0), 0);
}

TEST_F(CheckUserAccess, RootMayWriteButNotWhereNobodyCan) {
  NEED_ROOT();
  give(kUser, kGroup, 0700);
  EXPECT_EQ(accessOf(0), 0);
  const std::string readOnly =
      "mount --bind " + directory + " " + directory + "; mount -o remount,ro,bind " + directory;
  for (const std::string user : {"0", "61234"}) {
    const TaskResult result = afterMounting(readOnly, user);
    EXPECT_EQ(result.status, 1) << user;
    EXPECT_THAT(result.errorText, EndsWith(": Read-only file system\n"));
  }
}

TEST_F(CheckUserAccess, NoCapabilityOfTheCallerIsKept) {
  NEED_ROOT();
  give(0, 0, 0700);
  const TaskResult result =
      behind("/usr/bin/setpriv", {"--securebits", "+no_setuid_fixup"}, std::to_string(kUser));
  EXPECT_EQ(result.status, 1) << result.errorText;
  EXPECT_THAT(result.errorText, EndsWith(": Permission denied\n"));
}

TEST_F(CheckUserAccess, WhatIsNoDirectoryIsANo) {
  root.write("/file", "x");
  root.makeLink("/dangling", "nothing");
  root.makeLink("/loop", "loop");
  const std::string self = std::to_string(::geteuid());
  for (const auto& [path, reason] : {std::pair("/file", "Not a directory"),
                                     {"/file/x", "Not a directory"},
                                     {"/none", "No such file or directory"},
                                     {"/dangling", "No such file or directory"},
                                     {"/loop", "Too many levels of symbolic links"}}) {
    const TaskResult result = run({self, root.hostPath(path)});
    EXPECT_EQ(result.status, 1) << path;
    EXPECT_THAT(result.errorText, EndsWith(std::string(reason) + "\n"));
  }
  EXPECT_EQ(run({self, "/" + std::string(300, 'x')}).status, 1);
}

TEST_F(CheckUserAccess, ALinkToADirectoryIsThatDirectory) {
  root.makeLink("/link", directory);
  EXPECT_EQ(run({std::to_string(::geteuid()), root.hostPath("/link")}).status, 0);
}

TEST_F(CheckUserAccess, AnOrdinaryUserCanAskAboutItselfAlone) {
  NEED_ROOT();
  give(kUser, kGroup, 0700);
  const std::vector<std::string> asUser{"--reuid=61234", "--regid=61300", "--clear-groups"};
  EXPECT_EQ(behind("/usr/bin/setpriv", asUser, "61234").status, 0);
  const TaskResult other = behind("/usr/bin/setpriv", asUser, "61235");
  EXPECT_EQ(other.status, 2);
  EXPECT_EQ(other.errorText, "check_user_access: 61235: Operation not permitted\n");
  EXPECT_EQ(behind("/usr/bin/setpriv", asUser, "0").status, 2);
  give(0, 0, 0700);
  EXPECT_EQ(behind("/usr/bin/setpriv", asUser, "61234").status, 1);
}

TEST_F(CheckUserAccess, RootThatMayNotBecomeTheUserCannotTell) {
  NEED_ROOT();
  give(kUser, kGroup, 0700);
  const TaskResult result = behind("/usr/bin/setpriv", {"--bounding-set", "-setuid", "--inh-caps", "-setuid"},
                                   std::to_string(kUser));
  EXPECT_EQ(result.status, 2) << result.errorText;
  EXPECT_THAT(result.errorText, HasSubstr("Operation not permitted"));
}

TEST_F(CheckUserAccess, WrongUseIs2WithAWordOnHowToUseIt) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"84"},
                                             {"84", "/a", "/b"},
                                             {"84", ""},
                                             {"", "/"},
                                             {"x", "/"},
                                             {"-1", "/"},
                                             {"+84", "/"},
                                             {" 84", "/"},
                                             {"84 ", "/"},
                                             {"84x", "/"},
                                             {"0x54", "/"},
                                             {"8.4", "/"},
                                             {"4294967295", "/"},
                                             {"4294967296", "/"},
                                             {"99999999999999999999", "/"},
                                             {"--help", "/"},
                                             {"--nothing"}}) {
    const TaskResult result = run(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
    EXPECT_THAT(result.errorText,
                AllOf(StartsWith("check_user_access: "), EndsWith("\nusage: check_user_access UID PATH\n")));
    EXPECT_THAT(result.output, IsEmpty());
  }
}

TEST_F(CheckUserAccess, HelpAndVersionAreOnStandardOutput) {
  const TaskResult help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output,
              AllOf(StartsWith("usage: check_user_access UID PATH\n"), HasSubstr("Exit status: 0 yes")));
  const TaskResult version = run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, MatchesRegex("check_user_access [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

}  // namespace
}  // namespace tessard
