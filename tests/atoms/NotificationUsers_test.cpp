#include <crypt.h>

#include <cerrno>

#include "platform/keychain/AccessList.h"
#include "platform/keychain/KeychainStore.h"
#include "tests/atoms/NotificationDataFixtures.h"

// The accounts of the notification service: the component's own, and the one for client services.

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// As a login does it.
bool opens(const std::string& password, const std::string& hash) {
  crypt_data data{};
  const char* made = crypt_r(password.c_str(), hash.c_str(), &data);
  return made && hash == made;
}

const std::string kCreateLine = "Failed to create pubsub user";
const std::string kFindLine = "Couldn't find pubsub user";
const std::string kPasswordLine = "Failed to set pubsub user password";

class NotificationComponentAccount : public NotificationDataTest {
 protected:
  void connectAsClient(std::initializer_list<DictionaryEntry> more = {}) {
    Dictionary settings = with(complete(), {{"connectAsClient", true}});
    store(with(settings, more));
  }
  std::string storedPassword() {
    const Dictionary settings = stored();
    const std::string* password = settings.stringFor("password");
    return password ? *password : "";
  }
};

TEST_F(NotificationComponentAccount, IsNotNeededByAComponentOfTheRouter) {
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(lineOf("pubsub", "/etc/passwd"), "");
  EXPECT_FALSE(stored().contains("password"));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NotificationComponentAccount, IsMadeWithAPasswordForAComponentThatIsAClient) {
  connectAsClient();
  EXPECT_FALSE(atom->serviceDataReady());
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(lineOf("pubsub", "/etc/passwd"), "pubsub:x:250:20:PubSub User:99:/usr/bin/false");
  EXPECT_TRUE(opens(storedPassword(), hashOf("pubsub")));
  EXPECT_EQ(storedPassword().size(), 16U);
  EXPECT_TRUE(atom->serviceDataReady());
  EXPECT_EQ(platform.root.mode(kNotificationConfigFilePath), 0660U);
  EXPECT_EQ(platform.posixFiles.attributes(kNotificationConfigFilePath).value().owner, 84U);
}

TEST_F(NotificationComponentAccount, IsSaidToHaveFailedEachTimeItIsMade) {
  connectAsClient();
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre(kCreateLine, kFindLine, kPasswordLine));
}

TEST_F(NotificationComponentAccount, IsKeptWhenItIsThereAndGivenAPassword) {
  addUser("pubsub:x:700:20:mine:/home:/bin/sh");
  connectAsClient();
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre(kFindLine, kPasswordLine));
  EXPECT_EQ(lineOf("pubsub", "/etc/passwd"), "pubsub:x:700:20:mine:/home:/bin/sh");
  EXPECT_TRUE(opens(storedPassword(), hashOf("pubsub")));
}

TEST_F(NotificationComponentAccount, IsLeftAloneWhenItIsThereWithItsPassword) {
  addUser("pubsub:x:700:20:mine:/home:/bin/sh");
  connectAsClient({{"password", "known"}});
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_EQ(lineOf("pubsub", "/etc/shadow"), "");
  EXPECT_EQ(storedPassword(), "known");
}

TEST_F(NotificationComponentAccount, GetsThePasswordOfTheSettingsWhenItIsMadeAgain) {
  connectAsClient({{"password", "known"}});
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre(kCreateLine));
  EXPECT_TRUE(opens("known", hashOf("pubsub")));
  EXPECT_EQ(storedPassword(), "known");
}

TEST_F(NotificationComponentAccount, GetsTheFirstFreeNumber) {
  for (const char* line : {"a:x:250:20::/:/bin/sh", "b:x:251:20::/:/bin/sh", "c:x:252:20::/:/bin/sh"}) {
    addUser(line);
  }
  connectAsClient();
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(lineOf("pubsub", "/etc/passwd"), StartsWith("pubsub:x:253:"));
}

TEST_F(NotificationComponentAccount, IsNotMadeUnderANameThatNoAccountCanHave) {
  const std::string passwd = platform.root.read("/etc/passwd");
  const std::string shadow = platform.root.read("/etc/shadow");
  for (const std::string name : {"", "-rf", "..", "../../etc/passwd", "a:b", "root::0:0::/:/bin/sh\nx",
                                 "a\tb", "a\x7F", "a b", "1000"}) {
    platform.log.clear();
    connectAsClient({{"jid", name}});
    EXPECT_TRUE(atom->initServiceData());
    EXPECT_FALSE(atom->serviceDataReady());
    EXPECT_THAT(errors(), ElementsAre(kCreateLine,
                                      "the account of the publish-subscribe component was not made: the name "
                                      "is not one that a user or group can have; change the \"jid\" in the "
                                      "notification settings",
                                      kFindLine, kPasswordLine))
        << name;
    EXPECT_FALSE(stored().contains("password")) << "nobody would set it later";
    EXPECT_EQ(platform.root.read("/etc/passwd"), passwd);
    EXPECT_EQ(platform.root.read("/etc/shadow"), shadow);
  }
}

TEST_F(NotificationComponentAccount, IsMadeByTheNextRequestWhenItCouldNotBe) {
  connectAsClient();
  for (const char* operation :
       {"nodeWithType", "recordsMatching", "createRecordWithRecordType_name_attributes"}) {
    platform.directory.failAll(operation, EBUSY);
    platform.log.clear();
    EXPECT_TRUE(atom->initServiceData());
    EXPECT_THAT(errors(), Contains(HasSubstr("; try again when the other program has ended"))) << operation;
    EXPECT_FALSE(stored().contains("password")) << operation;
    platform.directory.heal();
  }
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_TRUE(opens(storedPassword(), hashOf("pubsub")));
}

TEST_F(NotificationComponentAccount, ThatIsLeftWithoutAPasswordIsToldWithWhatToDo) {
  for (const char* operation : {"recordWithRecordType_name", "changePassword_toPassword"}) {
    for (const bool known : {false, true}) {
      platform.root.write("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
      platform.root.write("/etc/shadow", "root:!:20000:0:99999:7:::\n");
      Dictionary settings = with(complete(), {{"connectAsClient", true}});
      if (known) settings.set("password", "known");
      store(settings);
      platform.log.clear();
      platform.directory.heal();
      platform.directory.failAll(operation, EIO);
      EXPECT_TRUE(atom->initServiceData());
      // The record of a user that was just made needs no search.
      const bool isHit = !known || std::string(operation) == "changePassword_toPassword";
      const std::string line =
          "the account of the publish-subscribe component was given no password: Input/output error; remove "
          "the account, and it is made again";
      EXPECT_EQ(platform.log.has(kLogError, line), isHit) << operation << known;
      EXPECT_EQ(stored().contains("password"), known);
    }
  }
}

TEST_F(NotificationComponentAccount, IsNotMadeWhileNoPasswordCanBeDrawn) {
  platform.random.hasDevice = false;
  connectAsClient();
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(),
              ElementsAre(kCreateLine,
                          "the account of the publish-subscribe component was not made: /dev/random "
                          "cannot be read",
                          kFindLine, kPasswordLine));
  EXPECT_EQ(lineOf("pubsub", "/etc/passwd"), "");
  platform.random.hasDevice = true;
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_TRUE(opens(storedPassword(), hashOf("pubsub")));
}

TEST_F(NotificationComponentAccount, HasAPasswordThatIsNowhereButInTheSettings) {
  connectAsClient();
  EXPECT_TRUE(atom->initServiceData());
  const std::string password = storedPassword();
  ASSERT_EQ(password.size(), 16U);
  for (const std::string& line : platform.log.lines()) EXPECT_THAT(line, Not(HasSubstr(password)));
  for (const auto& call : platform.tasks.calls) {
    for (const auto& argument : call.arguments) EXPECT_THAT(argument.content, Not(HasSubstr(password)));
  }
}

class NotificationServiceUser : public NotificationDataTest {
 protected:
  NotificationServiceUser() {
    owner.preferences = Dictionary{{"jabberdClientPortTLS", 5218}, {"jabberdS2SPort", 5268}};
  }
  Dictionary answer(const char* service = "calendar") {
    const auto given = atom->getServiceUserWithRequest({{"command", "getServiceUser"}, {"service", service}});
    return given ? *given : Dictionary{{"no", "answer"}};
  }
  static Lines keysOf(const Dictionary& dictionary) {
    Lines keys;
    for (const DictionaryEntry& entry : dictionary) keys.push_back(entry.key);
    return keys;
  }
  std::string kept() {
    platform.keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
    const auto found = platform.keychain.SecKeychainFindGenericPassword(kServiceUser);
    return found.value ? found.value->data : "";
  }
};

TEST_F(NotificationServiceUser, IsMadeAndAnsweredKeyByKey) {
  const Dictionary given = answer();
  EXPECT_THAT(keysOf(given), ElementsAre("userName", "password", "xmppHostName", "JID",
                                         "jabberdClientPortTLS", "jabberdS2SPort"));
  EXPECT_EQ(*given.find("userName"), Value(kServiceUser));
  EXPECT_EQ(*given.find("xmppHostName"), Value("served.example.com"));
  EXPECT_EQ(*given.find("JID"), Value(kServiceUser + "@served.example.com"));
  EXPECT_EQ(*given.find("jabberdClientPortTLS"), Value(5218));
  EXPECT_EQ(*given.find("jabberdS2SPort"), Value(5268));
  EXPECT_EQ(lineOf(kServiceUser, "/etc/passwd"),
            kServiceUser + ":x:250:20:Notification User:99:/usr/bin/false");
  EXPECT_TRUE(opens(*given.stringFor("password"), hashOf(kServiceUser)));
  EXPECT_EQ(kept(), *given.stringFor("password"));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(NotificationServiceUser, HasItsPasswordKeptUnderItsLabelForRootAlone) {
  answer();
  auto store = KeychainStore::openToRead(platform.root.path());
  ASSERT_TRUE(store && store.value());
  const auto passwords = store.value()->passwords();
  ASSERT_TRUE(passwords && passwords.value().size() == 1);
  const KeychainStore::Password& password = passwords.value().front();
  EXPECT_EQ(password.account, kServiceUser);
  EXPECT_EQ(password.label, "com.velto.tessard_notification");
  EXPECT_EQ(parseAccess(password.access), NotificationAtom::makeUidAccess(0));
}

TEST_F(NotificationServiceUser, IsTheSameForEveryServiceThatAsks) {
  const Dictionary first = answer("calendar");
  const std::string passwd = platform.root.read("/etc/passwd");
  const std::string shadow = platform.root.read("/etc/shadow");
  platform.files.clearCalls();
  EXPECT_EQ(answer("mail"), first);
  EXPECT_EQ(platform.root.read("/etc/passwd"), passwd);
  EXPECT_EQ(platform.root.read("/etc/shadow"), shadow);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationServiceUser, IsNotMadeWhenTheKeychainHasThePassword) {
  atom->serviceUserPasswordFromKeychain();
  atom->storePasswordInKeychain_account_label("known", kServiceUser, "label");
  EXPECT_EQ(*answer().stringFor("password"), "known");
  EXPECT_EQ(lineOf(kServiceUser, "/etc/passwd"), "");
  EXPECT_EQ(kept(), "known");
}

TEST_F(NotificationServiceUser, IsGivenANewPasswordWhenTheKeychainHasLostIt) {
  const std::string first = *answer().stringFor("password");
  platform.root.remove("/var/lib/tessardd/keychain");
  const std::string second = *answer().stringFor("password");
  EXPECT_NE(first, second);
  EXPECT_TRUE(opens(second, hashOf(kServiceUser)));
  EXPECT_EQ(kept(), second);
}

TEST_F(NotificationServiceUser, GetsTheFirstFreeNumber) {
  for (const char* line : {"a:x:250:20::/:/bin/sh", "b:x:251:20::/:/bin/sh", "c:x:252:20::/:/bin/sh"}) {
    addUser(line);
  }
  answer();
  EXPECT_THAT(lineOf(kServiceUser, "/etc/passwd"), StartsWith(kServiceUser + ":x:253:"));
}

TEST_F(NotificationServiceUser, HasTheHostsDomainWhenNoServiceHasOne) {
  owner.domains.reset();
  owner.hostDomain = "host.example.com";
  EXPECT_EQ(*answer().stringFor("xmppHostName"), "host.example.com");
}

TEST_F(NotificationServiceUser, IsNotAnsweredWithoutADomain) {
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->getServiceUserWithRequest({}));
  EXPECT_THAT(warnings(), ElementsAre("Unable to determine jabber domain for getServiceUserWithRequest"));
  EXPECT_EQ(lineOf(kServiceUser, "/etc/passwd"), "");
}

TEST_F(NotificationServiceUser, IsNotAnsweredForAnEmptyListOfDomains) {
  owner.domains = Lines{};
  owner.hostDomain = "host.example.com";
  EXPECT_FALSE(atom->getServiceUserWithRequest({{"service", "calendar"}}));
  EXPECT_THAT(errors(), ElementsAre("the jabberd service has no domain for the notification service"));
  EXPECT_EQ(lineOf(kServiceUser, "/etc/passwd"), "");
}

TEST_F(NotificationServiceUser, IsAnsweredUpToTheFirstValueThatIsAbsent) {
  owner.preferences = Dictionary{{"jabberdClientPortTLS", 5218}};
  EXPECT_THAT(keysOf(answer()),
              ElementsAre("userName", "password", "xmppHostName", "JID", "jabberdClientPortTLS"));
  owner.preferences = Dictionary{{"jabberdS2SPort", 5268}};
  EXPECT_THAT(keysOf(answer()), ElementsAre("userName", "password", "xmppHostName", "JID"));
  platform.root.remove("/var/lib/tessardd/keychain");
  platform.random.hasDevice = false;
  EXPECT_THAT(keysOf(answer()), ElementsAre("userName"));
}

TEST_F(NotificationServiceUser, BecomesAPrivilegedUserOnce) {
  storeWith({{"privilegedUsers", Array{"somebody"}}});
  answer();
  EXPECT_EQ(*stored().find("privilegedUsers"), Value(Array{"somebody", kServiceUser}));
  EXPECT_EQ(platform.root.mode(kNotificationConfigFilePath), 0660U);
  platform.files.clearCalls();
  answer();
  EXPECT_EQ(*stored().find("privilegedUsers"), Value(Array{"somebody", kServiceUser}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationServiceUser, BecomesAPrivilegedUserWhereThereIsNoList) {
  Dictionary settings = complete();
  settings.remove("privilegedUsers");
  store(settings);
  answer();
  EXPECT_EQ(*stored().find("privilegedUsers"), Value(Array{kServiceUser}));
}

TEST_F(NotificationServiceUser, IsToldThatTheSettingsCouldNotBeWritten) {
  store(complete());
  platform.files.failPath("createFile", "", EROFS);
  answer();
  EXPECT_THAT(errors(), Contains(StartsWith("notification settings were not saved: ")));
}

TEST_F(NotificationServiceUser, SaysWhatFailedWhenItCannotBeMade) {
  platform.directory.failAll("createRecordWithRecordType_name_attributes", EACCES);
  answer();
  EXPECT_THAT(errors(),
              ElementsAre("Failed to create user com.velto.notificationuser",
                          "the account of the client services was not made: Permission denied; the daemon "
                          "must run as root",
                          kFindLine, kPasswordLine,
                          "the account of the client services was given no password: there is no user "
                          "\"com.velto.notificationuser\""));
  EXPECT_EQ(kept(), "") << "a password that the account does not have is not kept";
}

TEST_F(NotificationServiceUser, SaysThatItsPasswordWasNotSet) {
  platform.directory.failAll("changePassword_toPassword", EBUSY);
  answer();
  EXPECT_THAT(errors(), ElementsAre(kPasswordLine,
                                    "the account of the client services was given no password: Device or "
                                    "resource busy; try again when the other program has ended"));
  EXPECT_EQ(kept(), "");
  platform.directory.heal();
  const std::string password = *answer().stringFor("password");
  EXPECT_TRUE(opens(password, hashOf(kServiceUser)));
}

TEST_F(NotificationServiceUser, SaysThatTheAccountsCannotBeReached) {
  platform.directory.failAll("nodeWithType", ENODEV);
  answer();
  EXPECT_THAT(errors(), ElementsAre("the accounts of this machine cannot be reached: No such device"));
}

TEST_F(NotificationServiceUser, SaysThatItsPasswordWasNotKept) {
  platform.root.write("/var/lib/tessardd/keychain", "no directory");
  answer();
  EXPECT_THAT(errors(), Contains(StartsWith("the password of \"com.velto.notificationuser\" was not kept, so "
                                            "the next request makes a new one: ")));
}

TEST_F(NotificationServiceUser, HasAPasswordThatNoLogHolds) {
  const std::string password = *answer().stringFor("password");
  for (const std::string& line : platform.log.lines()) EXPECT_THAT(line, Not(HasSubstr(password)));
  EXPECT_THAT(platform.root.read(kNotificationConfigFilePath), Not(HasSubstr(password)));
}

TEST_F(NotificationServiceUser, HasNoTopicWhileTheBridgeIsOff) {
  EXPECT_FALSE(answer().contains("korpsTopic"));
  EXPECT_FALSE(answer().contains("subscriptionURL"));
}

TEST_F(NotificationServiceUser, HasNoTopicWithoutACertificateForTheService) {
  storeWith({{"korvbridgeEnabled", true}});
  EXPECT_THAT(keysOf(answer()), ElementsAre("userName", "password", "xmppHostName", "JID",
                                            "jabberdClientPortTLS", "jabberdS2SPort"));
}

}  // namespace
}  // namespace tessard
