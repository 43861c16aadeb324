#include <cerrno>

#include "tests/atoms/NotificationDataFixtures.h"

// Who may chat, and what the keychain keeps for the service.

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kAllServices = "com.velto.access_all_services";
const std::string kChat = "com.velto.access_chat";

class NotificationChatAccess : public NotificationDataTest {
 protected:
  NotificationChatAccess() { addUser(kServiceUser + ":x:250:20:Notification User:99:/usr/bin/false"); }
};

TEST_F(NotificationChatAccess, IsGivenThroughTheGroupOfAllServices) {
  addGroup(kAllServices + ":x:300:");
  addGroup(kChat + ":x:301:");
  atom->checkChatAccessForServiceUser();
  EXPECT_EQ(lineOf(kAllServices, "/etc/group"), kAllServices + ":x:300:" + kServiceUser);
  EXPECT_EQ(lineOf(kChat, "/etc/group"), kChat + ":x:301:");
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(NotificationChatAccess, IsGivenThroughTheGroupOfChatWhereTheOtherIsMissing) {
  addGroup(kChat + ":x:301:somebody");
  atom->checkChatAccessForServiceUser();
  EXPECT_EQ(lineOf(kChat, "/etc/group"), kChat + ":x:301:somebody," + kServiceUser);
}

TEST_F(NotificationChatAccess, NeedsNoGroupWhereThereIsNone) {
  const std::string groups = platform.root.read("/etc/group");
  atom->checkChatAccessForServiceUser();
  EXPECT_EQ(platform.root.read("/etc/group"), groups);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(NotificationChatAccess, IsNotGivenTwice) {
  addGroup(kAllServices + ":x:300:" + kServiceUser);
  atom->checkChatAccessForServiceUser();
  EXPECT_EQ(lineOf(kAllServices, "/etc/group"), kAllServices + ":x:300:" + kServiceUser);
  for (const std::string& call : platform.directory.calls) {
    EXPECT_FALSE(call.starts_with("addMemberRecord")) << call;
  }
}

TEST_F(NotificationChatAccess, IsNotGivenBeforeTheUserIsThere) {
  platform.root.write("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
  addGroup(kAllServices + ":x:300:");
  atom->checkChatAccessForServiceUser();
  EXPECT_EQ(lineOf(kAllServices, "/etc/group"), kAllServices + ":x:300:");
}

TEST_F(NotificationChatAccess, IsGivenAtTheSetupAndWhenTheUserIsMade) {
  addGroup(kAllServices + ":x:300:");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(lineOf(kAllServices, "/etc/group"), kAllServices + ":x:300:" + kServiceUser);
  platform.root.write("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
  platform.root.write("/etc/group", "staff:x:20:\n" + kChat + ":x:301:\n");
  EXPECT_TRUE(atom->getServiceUserWithRequest({{"service", "mail"}}));
  EXPECT_EQ(lineOf(kChat, "/etc/group"), kChat + ":x:301:" + kServiceUser);
}

TEST_F(NotificationChatAccess, IsNoErrorWhenItCannotBeGiven) {
  addGroup(kAllServices + ":x:300:");
  platform.directory.failAll("addMemberRecord", EACCES);
  atom->checkChatAccessForServiceUser();
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_THAT(warnings(), ElementsAre("\"com.velto.notificationuser\" could not be added to the group "
                                      "\"com.velto.access_all_services\", and so may not be let in: "
                                      "Permission denied"));
  platform.directory.failAll("nodeWithType", EACCES);
  platform.log.clear();
  atom->checkChatAccessForServiceUser();
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

class NotificationKeychain : public NotificationDataTest {
 protected:
  void SetUp() override { platform.keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system); }

  std::string kept(const std::string& account) {
    const auto found = platform.keychain.SecKeychainFindGenericPassword(account);
    return found.value ? found.value->data : "nothing";
  }
};

TEST_F(NotificationKeychain, KeepsANewPasswordForItsAccount) {
  atom->storePasswordInKeychain_account_label("first", "somebody", "label");
  EXPECT_EQ(kept("somebody"), "first");
  EXPECT_EQ(kept("another"), "nothing");
}

TEST_F(NotificationKeychain, ReplacesThePasswordOfAnAccountWhateverItsLabel) {
  atom->storePasswordInKeychain_account_label("first", "somebody", "label");
  atom->storePasswordInKeychain_account_label("second", "somebody", "another label");
  EXPECT_EQ(kept("somebody"), "second");
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NotificationKeychain, IsAskedForTheServiceUserInTheDomainOfTheSystem) {
  atom->storePasswordInKeychain_account_label("known", kServiceUser, "label");
  platform.keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::user);
  EXPECT_EQ(atom->serviceUserPasswordFromKeychain(), "known");
  EXPECT_EQ(platform.keychain.domain, SecPreferencesDomain::system);
}

TEST_F(NotificationKeychain, HasNoPasswordAtFirst) {
  EXPECT_FALSE(atom->serviceUserPasswordFromKeychain());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(NotificationKeychain, GivesNoPasswordThatIsNoText) {
  atom->storePasswordInKeychain_account_label("\xFF\xFE", kServiceUser, "label");
  EXPECT_FALSE(atom->serviceUserPasswordFromKeychain());
}

TEST_F(NotificationKeychain, ThatCannotBeReadIsTold) {
  platform.keychain.fail("SecKeychainFindGenericPassword", errSecInvalidKeychain);
  EXPECT_FALSE(atom->serviceUserPasswordFromKeychain());
  EXPECT_THAT(errors(), ElementsAre("the password of \"com.velto.notificationuser\" cannot be read from the "
                                    "keychain: The keychain is damaged"));
}

TEST_F(NotificationKeychain, ThatCannotBeWrittenIsTold) {
  platform.keychain.fail("SecKeychainItemCreateFromContent", errSecWrPerm);
  atom->storePasswordInKeychain_account_label("first", "somebody", "label");
  EXPECT_THAT(errors(), ElementsAre("the password of \"somebody\" was not kept, so the next request makes a "
                                    "new one: The keychain may not be written by this user"));
}

TEST(NotificationKeychainAccess, IsForTheUserAlone) {
  const AclSubject subject{AclSubjectType::CSSM_ACL_SUBJECT_TYPE_PROCESS, 0x0101, CSSM_ACL_MATCH_UID, 84, 0};
  EXPECT_EQ(
      NotificationAtom::makeUidAccess(84),
      (SecAccess{{subject, false}, {{subject, false, {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY}}}}));
}

}  // namespace
}  // namespace tessard
