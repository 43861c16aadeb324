#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class AccountsCheck : public CheckTest {
 protected:
  static constexpr const char* kUser = "com.velto.notificationuser";
  static constexpr const char* kSettings = "/Library/Preferences/com.velto.Beaconry.plist";

  void add(std::string_view path, const std::string& line) {
    root.write(path, root.read(path) + line + "\n");
  }

  void makeServiceUser() {
    root.write(kSettings, list("<key>privilegedUsers</key><array><string>" + std::string(kUser) +
                               "@push.example.com</string></array>"));
    add("/etc/passwd", std::string(kUser) + ":x:250:20::/99:/usr/bin/false");
    add("/etc/shadow", std::string(kUser) + ":$y$x:20000::::::");
  }
};

TEST_F(AccountsCheck, FindsNothingWhereTheAccountsAreThere) {
  EXPECT_THAT(found(kAccountsArea), IsEmpty());
  makeServiceUser();
  EXPECT_THAT(found(kAccountsArea), IsEmpty());
}

TEST_F(AccountsCheck, FindsAccountFilesThatCannotBeRead) {
  root.remove("/etc/group");
  const auto findings = found(kAccountsArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "accounts-unreadable");
  EXPECT_EQ(findings[0].subject, "/etc/group");
}

TEST_F(AccountsCheck, FindsThatTheServicesAccountAndGroupAreMissing) {
  change("/etc/passwd", ":84:84:", ":85:85:");
  change("/etc/group", ":84:", ":85:");
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("service-account-missing", "service-group-missing"));
}

TEST_F(AccountsCheck, FindsAnotherAccountWithItsNumber) {
  add("/etc/passwd", "calendar:x:84:84::/:/usr/sbin/nologin");
  const auto findings = found(kAccountsArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "service-account-shared");
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"calendar\""));
}

TEST_F(AccountsCheck, FindsAShellForPeople) {
  change("/etc/passwd", "/usr/sbin/nologin", "/bin/bash");
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("service-account-login"));
}

TEST_F(AccountsCheck, FindsThatNobodyButRootMayAdminister) {
  configuration.adminGroup = "no-such-group";
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("admin-group-missing"));
}

TEST_F(AccountsCheck, FindsThatTheComponentHasNoAccountToLogInWith) {
  root.write(kSettings, list("<key>connectAsClient</key><true/><key>jid</key><string>pubsub</string>"));
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("component-account-missing"));
  add("/etc/passwd", "pubsub:x:251:20::/99:/usr/bin/false");
  EXPECT_THAT(found(kAccountsArea), IsEmpty());
}

TEST_F(AccountsCheck, FindsThatTheServicesUserIsGoneOrHasNoPassword) {
  makeServiceUser();
  change("/etc/shadow", kUser, "somebody");
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("service-user-without-password"));
  change("/etc/passwd", kUser, "somebody");
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("service-user-missing"));
}

TEST_F(AccountsCheck, FindsThatAGroupKeepsTheServicesUserOut) {
  makeServiceUser();
  add("/etc/group", "com.velto.access_chat:x:901:ann");
  EXPECT_THAT(foundIds(kAccountsArea), ElementsAre("service-user-refused"));
  add("/etc/group", std::string("com.velto.access_all_services:x:902:") + kUser);
  EXPECT_THAT(found(kAccountsArea), IsEmpty());
}

}  // namespace
}  // namespace tessard
