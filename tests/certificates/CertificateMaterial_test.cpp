#include "platform/certificates/CertificateMaterial.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "common/Text.h"
#include "tests/certificates/CertificateFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

struct CertificateFiles : testing::Test {
  Authorities authorities;
  TestCertificate made{authorities.wishes()};

  std::string chain() const { return authorities.middle.pem() + authorities.root.pem(); }

  // What is wrong when the issuer is not asked for, as the authorities of a test are nobody's.
  static std::vector<std::string> wrongWith(const std::string& certificate, const std::string& key,
                                            const std::string& chain = "", const char* passPhrase = nullptr) {
    return idsOf(examined(certificate, key, chain, passPhrase));
  }
};

std::string withCarriageReturns(const std::string& text) {
  std::string result;
  for (const char character : text) {
    if (character == '\n') result += '\r';
    result += character;
  }
  return result;
}

// While one lives, OpenSSL finds none of the providers that are files.
struct NoProviders {
  NoProviders() { setenv("OPENSSL_MODULES", "/nonexistent", 1); }
  ~NoProviders() { unsetenv("OPENSSL_MODULES"); }
};

TEST_F(CertificateFiles, APemPairWithItsChainIsInOrder) {
  const auto examination = examined(made.pem(), made.keyPem(), chain());
  EXPECT_THAT(idsOf(examination), IsEmpty());
  ASSERT_EQ(examination.chain.size(), 3U);
  EXPECT_EQ(examination.chain[0].der(), made.der());
  EXPECT_EQ(examination.chain[1].der(), authorities.middle.der());
  EXPECT_EQ(examination.chain[2].der(), authorities.root.der());
  ASSERT_TRUE(examination.privateKey);
  EXPECT_EQ(examination.privateKey->view(), made.keyBytes());
}

TEST_F(CertificateFiles, AllMayStandInOneFile) {
  EXPECT_THAT(wrongWith(made.keyPem() + made.pem() + chain(), ""), IsEmpty());
  EXPECT_THAT(wrongWith("words before\n" + made.pem() + "\nand between\n" + made.keyPem() + chain(), ""),
              IsEmpty());
}

TEST_F(CertificateFiles, LineEndsAndAByteOrderMarkOfOtherSystemsDoNoHarm) {
  EXPECT_THAT(wrongWith(withCarriageReturns(made.pem() + chain()), withCarriageReturns(made.keyPem())),
              IsEmpty());
  EXPECT_THAT(wrongWith("\xef\xbb\xbf" + made.pem() + chain(), "\xef\xbb\xbf" + made.keyPem()), IsEmpty());
  const std::string key = withCarriageReturns(made.keyPem("secret"));
  EXPECT_THAT(wrongWith(made.pem(), key, chain(), "secret"), IsEmpty());
}

TEST_F(CertificateFiles, DerIsReadAsWell) {
  EXPECT_THAT(wrongWith(made.der(), made.keyBytes(), chain()), IsEmpty());
  EXPECT_THAT(wrongWith(made.der(), made.sealedKeyBytes("secret"), chain(), "secret"), IsEmpty());
  EXPECT_THAT(wrongWith(made.der(), made.sealedKeyBytes("secret"), chain()),
              ElementsAre("pass-phrase-needed"));
  EXPECT_THAT(wrongWith(made.der(), made.sealedKeyBytes("secret"), chain(), "other"),
              ElementsAre("wrong-pass-phrase"));
}

TEST_F(CertificateFiles, Pkcs12BringsCertificateKeyAndChain) {
  const std::string file = made.pkcs12("secret", {&authorities.root, &authorities.middle});
  EXPECT_THAT(wrongWith(file, "", "", "secret"), IsEmpty());
  EXPECT_THAT(wrongWith(file, ""), ElementsAre("pass-phrase-needed"));
  EXPECT_THAT(wrongWith(file, "", "", "other"), ElementsAre("wrong-pass-phrase"));
  EXPECT_THAT(wrongWith(made.pkcs12("", {&authorities.middle, &authorities.root}), ""), IsEmpty());
}

TEST_F(CertificateFiles, Pkcs12OfOlderProgramsIsOpenedAndItsCiphersAreTold) {
  const auto examination = examined(made.oldPkcs12("secret"), "", chain(), "secret");
  ASSERT_THAT(idsOf(examination), ElementsAre("old-ciphers"));
  EXPECT_EQ(examination.findings[0].severity, FindingSeverity::note);
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("provider \"legacy\""));
  EXPECT_EQ(examination.chain.size(), 3U);
}

TEST_F(CertificateFiles, WhereOpenSslHasNoLegacyProviderThatIsSaid) {
  const std::string old = made.oldPkcs12("secret");
  const NoProviders none;
  const auto examination = examined(old, "", chain(), "secret");
  EXPECT_THAT(idsOf(examination), ElementsAre("legacy-provider-missing"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("provider \"legacy\""));
  EXPECT_THAT(examination.findings[0].remedy, HasSubstr("openssl pkcs12 -legacy"));
  // Those of today need none.
  EXPECT_THAT(wrongWith(made.pkcs12("secret"), "", chain(), "secret"), IsEmpty());
}

TEST_F(CertificateFiles, Pkcs7BringsTheChain) {
  const std::string der = TestCertificate::pkcs7({&authorities.root, &authorities.middle, &made});
  EXPECT_THAT(wrongWith(der, made.keyPem()), IsEmpty());
  EXPECT_THAT(wrongWith(made.pem(), made.keyPem(), der), ElementsAre("repeated-certificate"));
}

TEST_F(CertificateFiles, AnEncryptedKeyNeedsItsPassPhrase) {
  for (const bool traditional : {false, true}) {
    const std::string key = made.keyPem("secret", traditional);
    EXPECT_THAT(wrongWith(made.pem(), key, chain()), ElementsAre("pass-phrase-needed"));
    EXPECT_THAT(wrongWith(made.pem(), key, chain(), "other"), ElementsAre("wrong-pass-phrase"));
    EXPECT_THAT(wrongWith(made.pem(), key, chain(), "secret"), IsEmpty());
  }
}

TEST_F(CertificateFiles, ThePassPhraseIsInNoSentence) {
  const auto examination = examined(made.pem(), made.keyPem("right"), "", "not-to-be-shown");
  for (const CertificateFinding& finding : examination.findings) {
    EXPECT_THAT(finding.sentence + finding.remedy, Not(HasSubstr("not-to-be-shown")));
  }
  EXPECT_FALSE(examination.privateKey);
}

TEST_F(CertificateFiles, TheSameKeyTwiceIsOneKeyAndASecondOneIsRefused) {
  EXPECT_THAT(wrongWith(made.pem(), made.keyPem() + made.keyPem(), chain()), IsEmpty());
  EXPECT_THAT(wrongWith(made.keyPem() + made.pem(), made.keyPem(), chain()), IsEmpty());
  const auto examination = examined(made.pem(), made.keyPem() + TestCertificate("other").keyPem(), chain());
  EXPECT_THAT(idsOf(examination), ElementsAre("several-keys"));
  EXPECT_TRUE(examination.hasErrors());
}

TEST_F(CertificateFiles, TheSameCertificateTwiceIsUsedOnce) {
  const auto examination = examined(made.pem() + chain(), made.keyPem(), chain());
  EXPECT_THAT(idsOf(examination), ElementsAre("repeated-certificate"));
  EXPECT_FALSE(examination.hasErrors());
  EXPECT_EQ(examination.chain.size(), 3U);
}

TEST_F(CertificateFiles, WithoutACertificateOrAKeyThatIsSaid) {
  EXPECT_THAT(wrongWith("", made.keyPem()), ElementsAre("no-certificate"));
  EXPECT_THAT(wrongWith("", ""), UnorderedElementsAre("no-certificate", "no-key"));
  EXPECT_THAT(wrongWith(made.pem(), "", chain()), ElementsAre("no-key"));
  const auto request = examined(
      "-----BEGIN CERTIFICATE REQUEST-----\nAAAA\n-----END CERTIFICATE REQUEST-----\n", made.keyPem());
  ASSERT_THAT(idsOf(request), ElementsAre("no-certificate"));
  EXPECT_THAT(request.findings[0].sentence, HasSubstr("a request for a certificate"));
}

TEST_F(CertificateFiles, AMalformedFileIsNamedByWhatItIsFor) {
  const std::string cut = made.pem().substr(0, made.pem().size() / 2);
  for (const std::string& bad : {std::string("no certificate at all"), cut, TestCertificate::pemOf("no DER"),
                                 std::string(1, '\0'), made.der().substr(0, 100), made.der() + "more"}) {
    EXPECT_THAT(wrongWith(bad, made.keyPem()), ElementsAre("malformed")) << bad;
    EXPECT_THAT(findingOf(examined(made.pem(), bad, chain()), "malformed").sentence,
                HasSubstr("The key file cannot be read"));
  }
  EXPECT_THAT(findingOf(examined(made.pem(), made.keyPem(), cut), "malformed").sentence,
              HasSubstr("The chain file cannot be read"));
}

TEST_F(CertificateFiles, AMebibyteOfAnythingIsReadAndNoMoreThanThat) {
  for (const std::string& piece : {std::string("\0", 1), std::string("\x30\x83\x0f\xff\xff"),
                                   std::string("x\n"), std::string("-----BEGIN "), made.pem()}) {
    std::string much;
    while (much.size() + piece.size() <= CertificateMaterial::kSizeLimit) much += piece;
    EXPECT_THAT(wrongWith(much, made.keyPem()),
                Contains(testing::AnyOf("malformed", "no-certificate", "repeated-certificate")));
    much.append(piece.size(), 'x');
    EXPECT_THAT(wrongWith(much, made.keyPem()), ElementsAre("too-large"));
  }
}

TEST_F(CertificateFiles, KeysOfAllCommonKindsBelongToTheirCertificates) {
  for (const char* kind : {"RSA 2048", "EC P-384", "EC P-521"}) {
    auto wishes = authorities.wishes();
    wishes.key = kind;
    const TestCertificate other(wishes);
    EXPECT_THAT(wrongWith(other.pem(), other.keyPem(), chain()), IsEmpty()) << kind;
    EXPECT_THAT(wrongWith(other.pem(), other.keyPem("secret", true), chain(), "secret"), IsEmpty()) << kind;
    EXPECT_THAT(wrongWith(other.pkcs12("secret"), "", chain(), "secret"), IsEmpty()) << kind;
    EXPECT_EQ(factsOf(*Certificate::parse(other.der())).key, kind);
  }
}

}  // namespace
}  // namespace tessard
