#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <thread>

#include "programs/accounts/AccountService.h"
#include "tests/accounts/AccountFixtures.h"
#include "tests/support/ScriptedTasks.h"

// What is in the way of a change: locks, leftovers of an interrupted one, missing files, planted links, and
// the death of this process at every instant.

namespace tessard {
namespace {

using testing::AnyOf;
using testing::Eq;
using testing::HasSubstr;

std::string lockOf(pid_t process) {
  return std::to_string(process) + std::string(1, '\0');
}

/// A process that does nothing until it is ended.
class Sleeper {
 public:
  Sleeper() : pid_(::fork()) {
    if (pid_ == 0) {
      ::pause();
      ::_exit(0);
    }
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  ~Sleeper() { end(); }
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

class AccountLeftovers : public AccountsTest {
 protected:
  /// With little patience, for locks that nobody gives up.
  Result<DirectoryRecord> createAtOnce(const std::string& name) {
    LibuserDirectory impatient(root.path(), programs, std::chrono::milliseconds(0));
    return impatient.nodeWithType(kODNodeTypeLocalNodes)
        .value()
        ->createRecordWithRecordType_name_attributes(kODRecordTypeUsers, name, attributes("250"));
  }
};

TEST_F(AccountLeftovers, DoNotCountWhenTheirProcessHasEnded) {
  Sleeper sleeper;
  const std::string lock = lockOf(sleeper.pid());
  sleeper.end();
  for (const char* file : {"passwd.lock", "shadow.lock", "group.lock", "gshadow.lock"}) {
    root.write(std::string("/etc/") + file, lock);
  }
  EXPECT_TRUE(create("somebody"));
  EXPECT_TRUE(node->addMemberRecord(user("somebody"), group("jabberd")));
  EXPECT_FALSE(root.exists("/etc/passwd.lock"));
}

TEST_F(AccountLeftovers, DoNotCountWhenAFormerDaemonHadTheNumberOfThisProcess) {
  root.write("/etc/shadow.lock", lockOf(::getpid()));
  EXPECT_TRUE(create("somebody"));
}

TEST_F(AccountLeftovers, DoNotCountWhenTheMachineWasStartedSince) {
  root.write("/etc/passwd.lock", "");
  root.write("/etc/shadow.lock", lockOf(1));
  for (const char* file : {"/etc/passwd.lock", "/etc/shadow.lock"}) root.setModified(file, {1000, 0});
  EXPECT_TRUE(create("somebody"));
}

TEST_F(AccountLeftovers, DoNotCountWhenTheyAreNewContentThatNeverTookItsName) {
  for (const char* file : {"passwd+", "shadow+", "group+", "gshadow+"}) {
    root.write(std::string("/etc/") + file, "half of the fi");
  }
  EXPECT_TRUE(create("somebody"));
  EXPECT_TRUE(node->addMemberRecord(user("somebody"), group("jabberd")));
  EXPECT_FALSE(root.exists("/etc/passwd+"));
  EXPECT_EQ(lineOf("root", "/etc/passwd"), "root:x:0:0:root:/root:/bin/sh");
}

TEST_F(AccountLeftovers, DoNotCountWhenTheyAreLocksThatNeverTookTheirNames) {
  Sleeper sleeper;
  const std::string lock = lockOf(sleeper.pid());
  sleeper.end();
  root.write("/etc/passwd.lock.abCD12", lock);
  root.write("/etc/shadow.lock.abCD12", "");
  root.setModified("/etc/shadow.lock.abCD12", {1000, 0});
  EXPECT_TRUE(create("somebody"));
  EXPECT_FALSE(root.exists("/etc/passwd.lock.abCD12") || root.exists("/etc/shadow.lock.abCD12"));
}

TEST_F(AccountLeftovers, OfALockThatIsBeingMadeAreLeftToItsMaker) {
  const Sleeper sleeper;
  root.write("/etc/passwd.lock.abCD12", lockOf(sleeper.pid()));
  root.write("/etc/group.locks.abCD12", "");
  EXPECT_TRUE(create("somebody"));
  EXPECT_TRUE(root.exists("/etc/passwd.lock.abCD12") && root.exists("/etc/group.locks.abCD12"));
  root.write("/etc/shadow.lock.abCD12", "");
  root.setModified("/etc/shadow.lock.abCD12", {4102444800, 0});
  const auto made = createAtOnce("another");
  EXPECT_EQ(codeOf(made), EBUSY);
  EXPECT_THAT(reasonOf(made), HasSubstr("\"/etc/shadow.lock.abCD12\", which is being made"));
}

TEST_F(AccountLeftovers, OfALockThatHasJustBeenBegunAreWaitedForAndRemoved) {
  root.write("/etc/shadow.lock.abCD12", "");
  EXPECT_TRUE(create("somebody"));
  EXPECT_FALSE(root.exists("/etc/shadow.lock.abCD12"));
}

TEST_F(AccountLeftovers, DoNotCountWhenTheyAreAShadowLineWithoutAUser) {
  root.write("/etc/shadow", root.read("/etc/shadow") + "somebody:$6$salt$hash:1:0:99999:7:::\n");
  const auto made = create("somebody");
  ASSERT_TRUE(made) << reasonOf(made);
  EXPECT_EQ(hashOf("somebody"), "!") << "an old password comes not back";
}

TEST_F(AccountLeftovers, OfALockThatIsHeldAreRespected) {
  const Sleeper sleeper;
  root.write("/etc/passwd.lock", lockOf(sleeper.pid()));
  const std::string before = everything();
  const auto made = createAtOnce("somebody");
  EXPECT_EQ(codeOf(made), EBUSY);
  EXPECT_EQ(reasonOf(made), "the account files are locked: process " + std::to_string(sleeper.pid()) +
                                ", by \"/etc/passwd.lock\"");
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountLeftovers, OfALockThatNamesNobodyAreRespectedWhileTheyMayBeInUse) {
  root.write("/etc/group.lock", "who knows");
  const auto made = createAtOnce("somebody");
  EXPECT_EQ(codeOf(made), EBUSY);
  EXPECT_THAT(reasonOf(made), HasSubstr("\"/etc/group.lock\", which names no process"));
}

TEST_F(AccountLeftovers, OfALockAreWaitedForWhenItsHolderIsAboutToEnd) {
  LibuserDirectory patient(root.path(), programs, std::chrono::seconds(60));
  Sleeper sleeper;
  root.write("/etc/passwd.lock", lockOf(sleeper.pid()));
  std::thread other([&] { sleeper.end(); });
  EXPECT_TRUE(
      patient.nodeWithType(kODNodeTypeLocalNodes)
          .value()
          ->createRecordWithRecordType_name_attributes(kODRecordTypeUsers, "somebody", attributes("250")));
  other.join();
}

TEST_F(AccountLeftovers, NeverHinderReading) {
  const Sleeper sleeper;
  root.write("/etc/passwd.lock", lockOf(sleeper.pid()));
  EXPECT_TRUE(directory.getpwnam("jabberd"));
  EXPECT_TRUE(node->recordWithRecordType_name(kODRecordTypeUsers, "jabberd"));
}

using AccountFilesMissing = AccountsTest;

TEST_F(AccountFilesMissing, TheShadowFileIsMadeForRootAndItsGroup) {
  root.remove("/etc/shadow");
  ASSERT_TRUE(create("somebody"));
  ASSERT_TRUE(node->changePassword_toPassword(user("somebody"), "secret"));
  EXPECT_THAT(lineOf("somebody", "/etc/passwd"), testing::StartsWith("somebody:x:"));
  EXPECT_THAT(hashOf("somebody"), testing::StartsWith("$"));
  if (::geteuid() == 0) {
    EXPECT_EQ(root.mode("/etc/shadow"), 0640U);
    EXPECT_EQ(root.group("/etc/shadow"), kShadowGroup);
  } else {
    EXPECT_EQ(root.mode("/etc/shadow"), 0600U);
  }
}

TEST_F(AccountFilesMissing, TheShadowFileIsForRootAloneWhereThereIsNoGroupForIt) {
  root.remove("/etc/shadow");
  root.write("/etc/group", "staff:x:20:\n");
  ASSERT_TRUE(create("somebody"));
  EXPECT_EQ(root.mode("/etc/shadow"), 0600U);
}

TEST_F(AccountFilesMissing, TheShadowFileOfGroupsIsNotNeeded) {
  root.remove("/etc/gshadow");
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("staff")));
  EXPECT_EQ(lineOf("staff", "/etc/group"), "staff:x:20:jabberd");
  EXPECT_FALSE(root.exists("/etc/gshadow"));
}

TEST_F(AccountFilesMissing, NorALineOfTheGroupInIt) {
  root.write("/etc/gshadow", "root:*::\n");
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("staff")));
  EXPECT_EQ(lineOf("staff", "/etc/group"), "staff:x:20:jabberd");
  EXPECT_EQ(root.read("/etc/gshadow"), "root:*::\n");
}

TEST_F(AccountFilesMissing, TheGroupFileIsNotNeededForAUser) {
  root.remove("/etc/group");
  EXPECT_TRUE(create("somebody"));
  EXPECT_EQ(codeOf(node->addMemberRecord(user("somebody"), group("staff"))), ENOENT);
}

class AccountFilesPlanted : public AccountsTest {
 protected:
  ScratchRoot outside;

  /// Every change is refused and the file that the link leads to stays as it is.
  void expectRefusal(const std::string& name) {
    outside.write("/target", "precious:x:1:1::/:/bin/sh\n");
    root.remove("/etc/" + name);
    root.makeLink("/etc/" + name, outside.hostPath("/target"));
    for (const auto& change : changes()) {
      const auto changed = change();
      EXPECT_EQ(codeOf(changed), ELOOP) << name;
      EXPECT_EQ(reasonOf(changed), "\"/etc/" + name + "\" is a symbolic link, not an account file");
    }
    EXPECT_EQ(outside.read("/target"), "precious:x:1:1::/:/bin/sh\n") << name;
    root.remove("/etc/" + name);
  }

  std::vector<std::function<Result<void>()>> changes() {
    return {[this]() -> Result<void> {
              const auto made = create("somebody");
              return made ? Result<void>() : made.error();
            },
            [this] { return node->changePassword_toPassword(user("jabberd"), "secret"); }};
  }
};

TEST_F(AccountFilesPlanted, LinksInTheirPlacesAreRefused) {
  for (const std::string name : {"shadow", "gshadow", "group", "passwd-", "shadow-", "group-", "gshadow-",
                                 "passwd+", "shadow+", "passwd.lock", "shadow.lock"}) {
    expectRefusal(name);
  }
}

TEST_F(AccountFilesPlanted, ALinkInThePlaceOfTheUsersIsRefused) {
  expectRefusal("passwd");
}

TEST_F(AccountFilesPlanted, ALinkThatLeadsNowhereIsRefused) {
  root.remove("/etc/shadow");
  root.makeLink("/etc/shadow", outside.hostPath("/made"));
  EXPECT_EQ(codeOf(create("somebody")), ELOOP);
  EXPECT_FALSE(outside.exists("/made"));
}

TEST_F(AccountFilesPlanted, TheirDirectoryIsLookedForBelowTheRoot) {
  outside.write("/etc/passwd", "precious:x:1:1::/:/bin/sh\n");
  root.remove("/etc");
  root.makeLink("/etc", outside.hostPath("/etc"));
  EXPECT_FALSE(create("somebody"));
  EXPECT_FALSE(directory.getpwnam("precious"));
  EXPECT_EQ(outside.read("/etc/passwd"), "precious:x:1:1::/:/bin/sh\n");
}

TEST_F(AccountFilesPlanted, ADirectoryInTheirPlaceIsRefused) {
  root.remove("/etc/group");
  root.makeDirectory("/etc/group");
  EXPECT_EQ(reasonOf(create("somebody")), "\"/etc/group\" is not a regular file");
}

/// What reads no more than files is none of the instants that matter.
bool changesFiles(std::uint64_t call, const std::uint64_t* arguments) {
  switch (call) {
    case SYS_openat:
      return (arguments[2] & (O_WRONLY | O_RDWR)) != 0;
    case SYS_write:
    case SYS_pwrite64:
    case SYS_ftruncate:
    case SYS_fsync:
    case SYS_fchmod:
    case SYS_fchown:
    case SYS_link:
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_rename:
    case SYS_renameat:
    case SYS_renameat2:
      return true;
    default:
      return false;
  }
}

/// Runs the change in another process and kills that when it begins its `count`th system call that changes
/// files. False when it ended before that.
bool killedAt(int count, const std::function<void()>& change) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    change();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
  while (count > 0) {
    ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status)) return false;
    __ptrace_syscall_info call{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof call, &call);
    if (call.op == PTRACE_SYSCALL_INFO_ENTRY && changesFiles(call.entry.nr, call.entry.args)) --count;
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  return true;
}

/// The changes are made in the process that asks for them, which is killed.
class AccountsKilled : public AccountsTest {
 protected:
  ScriptedTasks here;
  LibuserDirectory changedHere{root.path(), here, std::chrono::seconds(50)};

  AccountsKilled() {
    here.on("/usr/libexec/tessardd/change_accounts", [this](const ScriptedTasks::Call& call) {
      const auto changed = changeAccounts(root.path(), call.input);
      return TaskResult{changed ? 0 : 1, accountAnswerOf(changed), ""};
    });
    node = changedHere.nodeWithType(kODNodeTypeLocalNodes).value();
  }

  std::string passwd = root.read("/etc/passwd");
  std::string shadow = root.read("/etc/shadow");
  std::string group_ = root.read("/etc/group");
  std::string gshadow = root.read("/etc/gshadow");

  void reset() const {
    for (const std::string& name : root.list("/etc")) root.remove("/etc/" + name);
    root.write("/etc/passwd", passwd);
    root.write("/etc/shadow", shadow);
    root.write("/etc/group", group_);
    root.write("/etc/gshadow", gshadow);
    for (const char* file : {"/etc/shadow", "/etc/gshadow"}) root.setMode(file, 0640);
  }

  /// Kills the change at every system call that changes files; after each, the check and the same change must
  /// pass.
  void killEverywhere(const std::function<bool()>& change, const std::function<void()>& check) {
    // What is loaded and made once per process is there before the first.
    ASSERT_TRUE(change());
    int kills = 0;
    for (int count = 1;; ++count) {
      reset();
      if (!killedAt(count, [&] { static_cast<void>(change()); })) break;
      ++kills;
      check();
      ASSERT_TRUE(change()) << "after a kill at call " << count;
      if (HasFailure()) return;
    }
    EXPECT_GT(kills, 10);
  }
};

TEST_F(AccountsKilled, WhileAUserIsMadeLeaveWholeFilesAndNoUserWithoutAShadowLine) {
  const std::string before = passwd;
  killEverywhere([&] { return directory.getpwnam("somebody") || create("somebody").ok(); },
                 [&] {
                   const std::string now = root.read("/etc/passwd");
                   EXPECT_THAT(now, AnyOf(Eq(before), Eq(before + "somebody:x:250:20:Notification "
                                                                  "User:99:/usr/bin/false\n")));
                   EXPECT_THAT(root.read("/etc/shadow"), testing::StartsWith(shadow));
                   EXPECT_EQ(root.mode("/etc/shadow"), 0640U);
                   if (now != before) {
                     EXPECT_EQ(hashOf("somebody"), "!");
                   }
                   EXPECT_EQ(root.read("/etc/group"), group_);
                 });
}

TEST_F(AccountsKilled, WhileAPasswordIsSetLeaveTheOldOneOrTheNew) {
  root.write("/etc/login.defs", "ENCRYPT_METHOD SHA256\n");
  killEverywhere([&] { return node->changePassword_toPassword(user("jabberd"), "secret").ok(); },
                 [&] {
                   EXPECT_EQ(root.read("/etc/passwd"), passwd);
                   EXPECT_EQ(lineOf("root", "/etc/shadow"), "root:!:20000:0:99999:7:::");
                   EXPECT_THAT(hashOf("jabberd"), AnyOf(Eq("!"), testing::StartsWith("$")));
                 });
}

TEST_F(AccountsKilled, WhileAMemberIsAddedLeaveWholeFiles) {
  killEverywhere(
      [&] { return node->addMemberRecord(user("jabberd"), group("staff")).ok(); },
      [&] {
        EXPECT_THAT(lineOf("staff", "/etc/group"), AnyOf(Eq("staff:x:20:"), Eq("staff:x:20:jabberd")));
        EXPECT_THAT(lineOf("staff", "/etc/gshadow"), AnyOf(Eq("staff:*::"), Eq("staff:*::jabberd")));
        EXPECT_EQ(lineOf("root", "/etc/gshadow"), "root:*::");
      });
}

}  // namespace
}  // namespace tessard
