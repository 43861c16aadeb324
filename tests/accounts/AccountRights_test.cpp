#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "tests/accounts/AccountFixtures.h"

// What a process may change.

namespace tessard {
namespace {

constexpr uid_t kOrdinaryUser = 65534;

class AccountRights : public AccountsTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  void giveAwayAll() const {
    for (const std::string path : {"", "/etc", "/etc/passwd", "/etc/shadow", "/etc/group", "/etc/gshadow"}) {
      ASSERT_EQ(::chown(root.hostPath(path).c_str(), kOrdinaryUser, kOrdinaryUser), 0) << path;
    }
  }

  /// The code with which the change ends for an ordinary user.
  static int asOrdinaryUser(const std::function<int()>& change) {
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setgroups(0, nullptr) != 0 || ::setgid(kOrdinaryUser) != 0 || ::setuid(kOrdinaryUser) != 0) {
        ::_exit(255);
      }
      ::_exit(change());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 254;
  }
};

TEST_F(AccountRights, LetAnOrdinaryUserChangeItsOwnRoot) {
  giveAwayAll();
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(create("somebody")); }), 0);
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(node->changePassword_toPassword(user("somebody"), "x")); }),
            0);
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(node->addMemberRecord(user("somebody"), group("jabberd"))); }),
            0);
  EXPECT_EQ(lineOf("jabberd", "/etc/group"), "jabberd:x:84:somebody");
  EXPECT_EQ(root.owner("/etc/shadow"), kOrdinaryUser);
  EXPECT_EQ(root.mode("/etc/shadow"), 0640U);
}

TEST_F(AccountRights, LetAnOrdinaryUserMakeTheShadowFileOfItsOwnRoot) {
  giveAwayAll();
  root.remove("/etc/shadow");
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(create("somebody")); }), 0);
  EXPECT_EQ(root.mode("/etc/shadow"), 0600U);
}

TEST_F(AccountRights, LetAnOrdinaryUserChangeNothingElse) {
  ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
  const std::string before = everything();
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(create("somebody")); }), EACCES);
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(node->changePassword_toPassword(user("jabberd"), "x")); }),
            EACCES);
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(node->addMemberRecord(user("jabberd"), group("staff"))); }),
            EACCES);
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountRights, LetAnOrdinaryUserReplaceNoFileOfAnother) {
  giveAwayAll();
  ASSERT_EQ(::chown(root.hostPath("/etc/group").c_str(), 0, 0), 0);
  const std::string before = everything();
  EXPECT_EQ(asOrdinaryUser([&] { return codeOf(create("somebody")); }), EPERM);
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountRights, LetEverybodyRead) {
  ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
  EXPECT_EQ(asOrdinaryUser([&] { return directory.getpwnam("jabberd") ? 0 : 1; }), 0);
}

TEST_F(AccountRights, AreNotBorrowed) {
  giveAwayAll();
  const pid_t child = ::fork();
  if (child == 0) {
    if (::seteuid(kOrdinaryUser) != 0) ::_exit(255);
    ::_exit(codeOf(create("somebody")));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), EPERM) << "libuser would work on the machine's own accounts";
}

}  // namespace
}  // namespace tessard
