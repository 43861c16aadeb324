#include <unistd.h>

#include "platform/SystemClock.h"
#include "platform/keychain/KeychainManager.h"
#include "tests/host/CheckFixtures.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::int64_t kDay = 86400;
constexpr const char* kPem = "/private/etc/jabberd_notification/server.pem";

class CertificatesCheck : public CheckTest {
 protected:
  CertificatesCheck() {
    changeConfig("c2s.xml", "<id>push.example.com</id>",
                 "<id require-starttls='true' pemfile='" + std::string(kPem) + "'>push.example.com</id>");
    write(TestCertificate(wishes()));
  }

  TestCertificate authority{{.subject = {TestCertificate::commonName("Authority")}, .authority = true}};
  std::int64_t now = SystemClock().now().seconds;

  TestCertificate::Wishes wishes() const {
    return {.subject = {TestCertificate::commonName("push.example.com")},
            .issuer = &authority,
            .extensions = {{"subjectAltName", "DNS:push.example.com"}}};
  }

  void write(const std::string& text) { writeAs(kPem, text, 84, 0, 0600); }
  void write(const TestCertificate& certificate) {
    write(certificate.pem() + authority.pem() + certificate.keyPem());
  }

  void addKeychainCertificate(std::int64_t notAfter) {
    const TestCertificate push(
        {.subject = {TestCertificate::topic("com.example.push")}, .notAfter = notAfter});
    SystemClock clock;
    KeychainManager keychain(root.path(), clock);
    ASSERT_TRUE(keychain.importFile(push.pem() + push.keyPem(), nullptr, false).ok());
    const auto records = keychain.certificates();
    ASSERT_TRUE(records.ok());
    ASSERT_TRUE(keychain.prefer("korvs:com.velto.mail", records.value().back().sha256).ok());
  }
};

TEST_F(CertificatesCheck, FindsNothingInACertificateWithItsChainAndKey) {
  EXPECT_THAT(found(kCertificatesArea), IsEmpty());
}

TEST_F(CertificatesCheck, SaysThatNoneIsSetAfterSetupAlone) {
  changeConfig("c2s.xml", " pemfile='" + std::string(kPem) + "'", "");
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("certificate-not-set"));
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kCertificatesArea), IsEmpty());
}

TEST_F(CertificatesCheck, FindsThatTheFileIsGone) {
  root.remove(kPem);
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("certificate-missing"));
}

TEST_F(CertificatesCheck, FindsThatTheServiceCannotReadIt) {
  root.setMode(kPem, 0200);
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("certificate-closed"));
}

TEST_F(CertificatesCheck, NamesTheDirectoryThatKeepsTheServiceOut) {
  if (geteuid() != 0) GTEST_SKIP() << "the user's own directories are the service's";
  writeAs("/etc/private/live/server.pem", root.read(kPem), 84, 0, 0600);
  own("/etc/private", 0, 0);
  root.setMode("/etc/private", 0700);
  changeConfig("c2s.xml", kPem, "/etc/private/live/server.pem");
  const auto findings = found(kCertificatesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "certificate-closed");
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"/etc/private\" is closed to it"));
}

TEST_F(CertificatesCheck, FindsAKeyThatEverybodyMayRead) {
  root.setMode(kPem, 0644);
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("key-open-to-others"));
}

TEST_F(CertificatesCheck, FindsThatTheAuthoritiesFileIsGone) {
  changeConfig("c2s.xml", " pemfile=", " cachain='/nowhere/ca.pem' pemfile=");
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("chain-file-missing"));
}

TEST_F(CertificatesCheck, FindsADomainThatWasLeftOut) {
  changeConfig("c2s.xml", "</id>", "</id><id>b.example.com</id>");
  EXPECT_THAT(foundIds(kCertificatesArea), testing::Contains("domain-without-certificate"));
}

TEST_F(CertificatesCheck, NamesTheDomainsThatTheCertificateIsNotFor) {
  changeConfig("c2s.xml", "</id>", "</id><id pemfile='" + std::string(kPem) + "'>b.example.com</id>");
  const auto findings = found(kCertificatesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "name-missing");
  EXPECT_EQ(findings[0].subject, "b.example.com");
}

TEST_F(CertificatesCheck, FindsOneThatHasEndedOrEndsSoon) {
  auto wanted = wishes();
  wanted.notAfter = now + 10 * kDay;
  write(TestCertificate(wanted));
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("ends-soon"));
  wanted.notAfter = now - kDay;
  write(TestCertificate(wanted));
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("expired"));
}

TEST_F(CertificatesCheck, FindsTheKeyOfAnother) {
  const TestCertificate one(wishes());
  write(one.pem() + authority.pem() + TestCertificate("another").keyPem());
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("key-mismatch"));
}

TEST_F(CertificatesCheck, TakesTheAuthoritiesFileForTheChainOfACertificateThatStandsAlone) {
  const TestCertificate middle(
      {.subject = {TestCertificate::commonName("Middle")}, .issuer = &authority, .authority = true});
  auto wanted = wishes();
  wanted.issuer = &middle;
  const TestCertificate one(wanted);
  write(one.pem() + one.keyPem());
  changeConfig("c2s.xml", " pemfile=", " cachain='" + inConfig("ca.pem") + "' pemfile=");
  writeAs(inConfig("ca.pem"), middle.pem() + authority.pem(), 84, 0, 0600);
  EXPECT_THAT(found(kCertificatesArea), IsEmpty());
  writeAs(inConfig("ca.pem"), one.pem(), 84, 0, 0600);
  write(authority.pem() + one.keyPem());
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("key-mismatch"));
}

TEST_F(CertificatesCheck, OpensAnEncryptedKeyWithThePassPhraseOfTheConfiguration) {
  const TestCertificate one(wishes());
  write(one.pem() + authority.pem() + one.keyPem("open sesame"));
  EXPECT_THAT(foundIds(kCertificatesArea), testing::Contains("pass-phrase-needed"));
  changeConfig("c2s.xml", " pemfile=", " private-key-password='wrong' pemfile=");
  EXPECT_THAT(foundIds(kCertificatesArea), testing::Contains("wrong-pass-phrase"));
  changeConfig("c2s.xml", "'wrong'", "'open sesame'");
  EXPECT_THAT(found(kCertificatesArea), IsEmpty());
}

TEST_F(CertificatesCheck, ExaminesTheCertificateForOtherServersToo) {
  changeConfig("s2s.xml", "<!--<pemfile>/private/etc/jabberd_notification/server.pem</pemfile>-->",
               "<pemfile>/private/etc/jabberd_notification/s2s.pem</pemfile>");
  writeAs(inConfig("s2s.pem"), "nothing", 84, 0, 0600);
  const auto findings = found(kCertificatesArea);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings[0].subject, inConfig("s2s.pem"));
}

TEST_F(CertificatesCheck, FindsPushCertificatesThatHaveEndedOrEndSoon) {
  addKeychainCertificate(now + 400 * kDay);
  EXPECT_THAT(found(kCertificatesArea), IsEmpty());
  addKeychainCertificate(now + 10 * kDay);
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("push-certificate-ends-soon"));
  addKeychainCertificate(now - kDay);
  EXPECT_THAT(foundIds(kCertificatesArea), ElementsAre("push-certificate-expired"));
}

}  // namespace
}  // namespace tessard
