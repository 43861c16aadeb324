#include "platform/keychain/KeychainManager.h"
#include "tests/atoms/NotificationDataFixtures.h"
#include "tests/support/TestCertificates.h"

// What client services are told of the push bridge.

namespace tessard {
namespace {

using testing::ElementsAre;

class NotificationSubscription : public NotificationDataTest {
 protected:
  KeychainManager manager{platform.root.path(), platform.clock};

  void SetUp() override {
    owner.preferences = Dictionary{{"jabberdClientPortTLS", 5218}, {"jabberdS2SPort", 5268}};
    const TestCertificate certificate({.subject = {TestCertificate::topic("com.velto.calendar.topic")}});
    ASSERT_TRUE(manager.importFile(certificate.pem() + certificate.keyPem(), nullptr, true));
    ASSERT_TRUE(manager.prefer("korvs:com.velto.calendar", manager.certificates().value().back().sha256));
  }

  Dictionary answer(const Dictionary& request) {
    const auto given = atom->getServiceUserWithRequest(request);
    return given ? *given : Dictionary{{"no", "answer"}};
  }
  static std::string textAt(const Dictionary& dictionary, const char* key) {
    const std::string* text = dictionary.stringFor(key);
    return text ? *text : "absent";
  }
};

TEST_F(NotificationSubscription, IsAnsweredWithTheTopicOfTheServiceAtTheEnd) {
  storeWith({{"korvbridgeEnabled", true}});
  const Dictionary given = answer({{"service", "calendar"}});
  Lines keys;
  for (const DictionaryEntry& entry : given) keys.push_back(entry.key);
  EXPECT_THAT(keys, ElementsAre("userName", "password", "xmppHostName", "JID", "jabberdClientPortTLS",
                                "jabberdS2SPort", "korpsTopic", "subscriptionURL"));
  EXPECT_EQ(textAt(given, "korpsTopic"), "com.velto.calendar.topic");
  EXPECT_EQ(textAt(given, "subscriptionURL"), "http://served.example.com:5290/subscription");
}

TEST_F(NotificationSubscription, IsServedOverHttpsWhereThatIsOn) {
  storeWith({{"korvbridgeEnabled", true}, {"enableHTTPS", true}, {"korvbridgePort", "8443"}});
  EXPECT_EQ(textAt(answer({{"service", "calendar"}}), "subscriptionURL"),
            "https://served.example.com:8443/subscription");
}

TEST_F(NotificationSubscription, IsNotAnsweredWhileTheBridgeIsOff) {
  const Dictionary given = answer({{"service", "calendar"}});
  EXPECT_FALSE(given.contains("korpsTopic"));
  EXPECT_FALSE(given.contains("subscriptionURL"));
}

TEST_F(NotificationSubscription, IsNotAnsweredToServicesWithoutATopic) {
  storeWith({{"korvbridgeEnabled", true}});
  const std::vector<Dictionary> requests = {
      {{"service", "mail"}}, {{"service", "fax"}}, {{"service", 7}}, {}};
  for (const Dictionary& request : requests) {
    const Dictionary given = answer(request);
    EXPECT_TRUE(given.contains("jabberdS2SPort"));
    EXPECT_FALSE(given.contains("korpsTopic"));
    EXPECT_FALSE(given.contains("subscriptionURL"));
  }
}

TEST_F(NotificationSubscription, IsLeftOutWithEverythingAfterAPortThatIsNotKnown) {
  storeWith({{"korvbridgeEnabled", true}});
  owner.preferences = Dictionary{{"jabberdClientPortTLS", 5218}};
  const Dictionary given = answer({{"service", "calendar"}});
  EXPECT_TRUE(given.contains("jabberdClientPortTLS"));
  EXPECT_FALSE(given.contains("korpsTopic"));
  EXPECT_FALSE(given.contains("subscriptionURL"));
}

}  // namespace
}  // namespace tessard
