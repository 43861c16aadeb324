#include <string>
#include <vector>

#include "common/Keychain.h"
#include "platform/keychain/KeychainManager.h"
#include "tests/atoms/NotificationFixtures.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

constexpr const char* kBridge = "com.velto.KorvBridge.https";

class NotificationCertificate : public NotificationTest {
 protected:
  KeychainManager manager{platform.root.path(), platform.clock};

  void import(const TestCertificate& certificate, bool withKey = true) {
    const auto report =
        manager.importFile(certificate.pem() + (withKey ? certificate.keyPem() : ""), nullptr, withKey);
    ASSERT_TRUE(report) << report.error().text;
  }

  // What the bridge would serve with; "" when nothing is chosen for it.
  std::string chosen(const std::string& name = kBridge) {
    const auto all = manager.certificates();
    EXPECT_TRUE(all);
    for (const CertificateRecord& record : all.value()) {
      for (const std::string& preferred : record.preferredFor) {
        if (preferred == name) return record.subject;
      }
    }
    return "";
  }

  std::optional<Dictionary> choose(const Value& name) {
    testing::internal::CaptureStderr();
    auto answer = atom->setKorvsCertificateWithRequest({{"certificateName", name}});
    standardError = testing::internal::GetCapturedStderr();
    return answer;
  }
  std::optional<Dictionary> clear() {
    testing::internal::CaptureStderr();
    auto answer = atom->setKorvsCertificateWithRequest({});
    standardError = testing::internal::GetCapturedStderr();
    return answer;
  }

  Lines errors() { return platform.log.messages(kLogError); }
  bool settingsWereWritten() {
    for (const auto& call : platform.files.calls()) {
      if (call.operation == "createFile" && call.path.starts_with(kNotificationConfigFilePath)) return true;
    }
    return false;
  }

  const Dictionary nothing;
  std::string standardError;
};

TEST_F(NotificationCertificate, ThatIsChosenBecomesTheBridgesIdentityAndSwitchesHttpsOn) {
  import(TestCertificate("other.example.com"));
  import(TestCertificate("push.example.com"));
  store(complete());
  EXPECT_EQ(choose("push.example"), (Dictionary{{"certificateName", "push.example"}}));
  EXPECT_EQ(chosen(), "CN = push.example.com");
  EXPECT_EQ(platform.keychain.domain, SecPreferencesDomain::system);
  EXPECT_EQ(stored(), with(complete(), {{"enableHTTPS", true}}));
  EXPECT_EQ(platform.root.mode(kNotificationConfigFilePath), 0660U);
  const auto attributes = platform.posixFiles.attributes(kNotificationConfigFilePath);
  ASSERT_TRUE(attributes.ok());
  EXPECT_EQ(attributes.value().owner, 84U);
  EXPECT_EQ(attributes.value().group, 0U);
  EXPECT_EQ(platform.log.messages(kLogDebug),
            Lines{"SecIdentitySetPreferred succeeded, updating preferences with https URL"});
  EXPECT_EQ(errors(), Lines{});
  EXPECT_EQ(standardError, "");
}

TEST_F(NotificationCertificate, ChosenTwiceIsWrittenOnce) {
  import(TestCertificate("push.example.com"));
  store(complete());
  choose("push.example.com");
  EXPECT_TRUE(settingsWereWritten());
  platform.files.clearCalls();
  EXPECT_EQ(choose("push.example.com"), (Dictionary{{"certificateName", "push.example.com"}}));
  EXPECT_FALSE(settingsWereWritten());
}

TEST_F(NotificationCertificate, AnotherOneTakesThePlaceOfTheFirst) {
  import(TestCertificate("first.example.com"));
  import(TestCertificate("second.example.com"));
  store(complete());
  choose("first.example.com");
  choose("second.example.com");
  EXPECT_EQ(chosen(), "CN = second.example.com");
}

TEST_F(NotificationCertificate, AbsentOrEmptyClearsTheChoiceAndSwitchesHttpsOff) {
  import(TestCertificate("push.example.com"));
  store(complete());
  for (const bool empty : {false, true}) {
    choose("push.example.com");
    ASSERT_EQ(stored().find("enableHTTPS")->boolValue(), true);
    EXPECT_EQ(empty ? choose("") : clear(), nothing);
    EXPECT_EQ(chosen(), "");
    EXPECT_EQ(stored(), with(complete(), {{"enableHTTPS", false}}));
  }
  EXPECT_EQ(errors(), Lines{});
}

TEST_F(NotificationCertificate, ClearedWithoutAChoiceWritesNothing) {
  store(complete());
  EXPECT_EQ(clear(), nothing);
  EXPECT_FALSE(settingsWereWritten());
  EXPECT_EQ(stored(), complete());
  EXPECT_EQ(errors(), Lines{});
}

TEST_F(NotificationCertificate, ThatIsNotThereChangesNothing) {
  import(TestCertificate("push.example.com"));
  store(complete());
  choose("push.example.com");
  EXPECT_EQ(choose("nobody.example.com"), nothing);
  EXPECT_EQ(chosen(), "CN = push.example.com");
  EXPECT_EQ(stored().find("enableHTTPS")->boolValue(), true);
  EXPECT_EQ(errors(), Lines{"SecItemCopyMatching (err = -25300)"});
  EXPECT_EQ(standardError, "");
}

TEST_F(NotificationCertificate, WithoutItsKeyChangesNothing) {
  import(TestCertificate("push.example.com"), false);
  store(complete());
  EXPECT_EQ(choose("push.example.com"), nothing);
  EXPECT_EQ(chosen(), "");
  EXPECT_EQ(stored(), complete());
  EXPECT_EQ(errors(), Lines{"SecIdentityCreateWithCertificate (err = -25300)"});
  EXPECT_EQ(standardError,
            "Couldn't create identity with certificate! SecIdentityCreateWithCertificate: "
            "The item is not in the keychain\n");
}

TEST_F(NotificationCertificate, ThatCannotBeMadePreferredChangesNothing) {
  import(TestCertificate("push.example.com"));
  store(complete());
  platform.keychain.fail("SecIdentitySetPreferred", errSecWrPerm);
  EXPECT_EQ(choose("push.example.com"), nothing);
  EXPECT_EQ(stored(), complete());
  EXPECT_EQ(errors(), Lines{"SecIdentitySetPreferred (err = -61)"});
  EXPECT_EQ(standardError, "SecIdentitySetPreferred failed: The keychain may not be written by this user\n");
}

TEST_F(NotificationCertificate, AChoiceThatCannotBeClearedKeepsHttpsOn) {
  import(TestCertificate("push.example.com"));
  store(complete());
  choose("push.example.com");
  platform.keychain.fail("SecIdentitySetPreferred", errSecIO);
  EXPECT_EQ(clear(), nothing);
  EXPECT_EQ(stored().find("enableHTTPS")->boolValue(), true);
  EXPECT_EQ(errors(), Lines{"SecIdentitySetPreferred (err = -36)"});
  EXPECT_EQ(standardError, "SecIdentitySetPreferred failed: The keychain cannot be read or written\n");
}

TEST_F(NotificationCertificate, AFailedWriteOfTheSettingsIsToldAndTheChoiceStands) {
  import(TestCertificate("push.example.com"));
  store(complete());
  platform.files.failAll("createFile", ENOSPC);
  EXPECT_EQ(choose("push.example.com"), (Dictionary{{"certificateName", "push.example.com"}}));
  EXPECT_EQ(chosen(), "CN = push.example.com");
  EXPECT_EQ(stored(), complete());
  ASSERT_EQ(errors().size(), 1U);
  EXPECT_THAT(errors().front(), testing::HasSubstr("No space left on device"));
}

TEST_F(NotificationCertificate, PermissionsThatCannotBeSetAreToldWhenChosenAndWhenCleared) {
  import(TestCertificate("push.example.com"));
  store(complete());
  platform.files.failAll("setOwnership", EPERM);
  EXPECT_EQ(choose("push.example.com"), (Dictionary{{"certificateName", "push.example.com"}}));
  EXPECT_EQ(clear(), nothing);
  const std::string told = "setting permissions of config failed: 'Operation not permitted'";
  EXPECT_EQ(errors(), (Lines{told, told}));
  EXPECT_EQ(stored(), with(complete(), {{"enableHTTPS", false}}));
}

TEST_F(NotificationCertificate, WithoutADomainTheSettingsAreNotWritten) {
  import(TestCertificate("push.example.com"));
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_EQ(choose("push.example.com"), (Dictionary{{"certificateName", "push.example.com"}}));
  EXPECT_FALSE(platform.root.exists(kNotificationConfigFilePath));
  EXPECT_EQ(errors(), Lines{"the notification settings are not known and were not written"});
}

TEST_F(NotificationCertificate, ANameThatIsNoTextChangesNothing) {
  import(TestCertificate("push.example.com"));
  store(complete());
  choose("push.example.com");
  for (const Value& name : {Value(7), Value(false), Value(Array{}), Value(Data{"push"})}) {
    EXPECT_EQ(choose(name), nothing);
  }
  EXPECT_EQ(chosen(), "CN = push.example.com");
  EXPECT_EQ(errors(), Lines(4, "the name of a certificate must be a text, nothing was changed"));
}

class PushTopic : public NotificationCertificate {
 protected:
  void prefer(const std::string& name, const std::vector<TestCertificate::Attribute>& subject) {
    import(TestCertificate({.subject = subject}));
    const auto all = manager.certificates();
    ASSERT_TRUE(all);
    ASSERT_TRUE(manager.prefer(name, all.value().back().sha256));
  }
  std::optional<std::string> topicOf(const std::string& service) {
    return atom->getKorpsTopicForService(service);
  }
  Lines debug() { return platform.log.messages(kLogDebug); }
};

TEST_F(PushTopic, IsTheUserIdInTheSubjectOfTheCertificateChosenForTheService) {
  const std::vector<std::pair<std::string, std::string>> names = {{"calendar", "korvs:com.velto.calendar"},
                                                                  {"addressbook", "korvs:com.velto.contact"},
                                                                  {"mail", "korvs:com.velto.mail"}};
  for (const auto& [service, name] : names) {
    prefer(name, {TestCertificate::commonName("Push"), TestCertificate::topic("topic.of." + service)});
  }
  for (const auto& [service, name] : names) {
    platform.log.clear();
    EXPECT_EQ(topicOf(service), "topic.of." + service);
    std::string located = "Located topic 'topic.of.";
    located += service + "' for identityName '" + name + "'";
    EXPECT_EQ(debug(), Lines{located});
  }
  EXPECT_EQ(platform.keychain.domain, SecPreferencesDomain::system);
}

TEST_F(PushTopic, OfAnUnknownServiceIsIgnoredWithANotice) {
  for (const char* service : {"contacts", "Calendar", "calendar ", ""}) {
    platform.log.clear();
    EXPECT_EQ(topicOf(service), std::nullopt);
    EXPECT_EQ(platform.log.messages(kLogNotice),
              Lines{std::string("Unknown serviceName passed to getKorpsTopicForService, ignoring (") +
                    service + ")"});
  }
}

TEST_F(PushTopic, OfNoServiceIsNothing) {
  EXPECT_EQ(atom->getKorpsTopicForService(std::nullopt), std::nullopt);
  EXPECT_TRUE(platform.log.messages().empty());
  EXPECT_EQ(platform.keychain.domain, SecPreferencesDomain::system);
}

TEST_F(PushTopic, NeedsAnIdentityThatWasChosen) {
  EXPECT_EQ(topicOf("mail"), std::nullopt);
  EXPECT_EQ(errors(), Lines{"SecIdentityCopyPreferred failed, id name = korvs:com.velto.mail"});
}

TEST_F(PushTopic, NeedsACertificateThatCanBeHad) {
  prefer("korvs:com.velto.mail", {TestCertificate::topic("t")});
  platform.keychain.fail("SecIdentityCopyCertificate", errSecAuthFailed);
  EXPECT_EQ(topicOf("mail"), std::nullopt);
  EXPECT_EQ(errors(),
            Lines{"SecIdentityCopyCertificate failed (err = -25293), id name = korvs:com.velto.mail"});
}

TEST_F(PushTopic, NeedsACertificateThatCanBeRead) {
  prefer("korvs:com.velto.mail", {TestCertificate::topic("t")});
  platform.keychain.fail("SecCertificateCopyValues", errSecDecode);
  EXPECT_EQ(topicOf("mail"), std::nullopt);
  EXPECT_EQ(errors(), Lines{"SecCertificateCopyValues failed: The content is malformed"});
}

TEST_F(PushTopic, IsMissingWhereTheSubjectHasNone) {
  prefer("korvs:com.velto.calendar", {TestCertificate::commonName("Push")});
  EXPECT_EQ(topicOf("calendar"), std::nullopt);
  EXPECT_EQ(debug(), Lines{"Did not find topic for Korv certificate for identity: korvs:com.velto.calendar"});
}

TEST_F(PushTopic, IsMissingWhereItHoldsANulAndIsNotTakenFromALaterOne) {
  prefer("korvs:com.velto.calendar",
         {TestCertificate::topic(std::string("good\0.evil", 10)), TestCertificate::topic("a later one")});
  EXPECT_EQ(topicOf("calendar"), std::nullopt);
  EXPECT_EQ(debug(), Lines{"Did not find topic for Korv certificate for identity: korvs:com.velto.calendar"});
}

TEST_F(PushTopic, IsTheFirstOfTwo) {
  prefer("korvs:com.velto.calendar", {TestCertificate::topic("first"), TestCertificate::commonName("x"),
                                      TestCertificate::topic("second")});
  EXPECT_EQ(topicOf("calendar"), "first");
}

TEST_F(PushTopic, OfAnExpiredCertificateIsStillItsTopic) {
  import(TestCertificate({.subject = {TestCertificate::topic("old")}, .notAfter = 1'700'000'001}));
  ASSERT_TRUE(manager.prefer("korvs:com.velto.mail", "old"));
  EXPECT_EQ(topicOf("mail"), "old");
}

}  // namespace
}  // namespace tessard
