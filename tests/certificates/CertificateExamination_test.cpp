#include "platform/certificates/CertificateExamination.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>

#include "tests/certificates/CertificateFixtures.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct CertificateExaminations : testing::Test {
  Authorities authorities;
  ScratchRoot scratch;

  std::string chain() const { return authorities.middle.pem() + authorities.root.pem(); }

  CertificateExamination examine(const TestCertificate::Wishes& wishes, const ExaminationRules& rules) const {
    const TestCertificate made(wishes);
    return examined(made.pem(), made.keyPem(), wishes.issuer ? chain() : "", nullptr, rules);
  }
  CertificateExamination examine(const TestCertificate::Wishes& wishes) const {
    return examine(wishes, {{"example.org"}, kNow});
  }

  // A directory of trusted certificates with this one, under the name by which OpenSSL looks for it.
  std::string trusting(const TestCertificate& trusted) {
    const auto certificate = Certificate::parse(trusted.der());
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "%08lx.0",
                  X509_NAME_hash_ex(X509_get_subject_name(certificate->handle()), nullptr, nullptr, nullptr));
    scratch.write(std::string("/certs/") + name.data(), trusted.pem());
    return scratch.path() + "/certs";
  }
};

TEST_F(CertificateExaminations, TheKeyOfAnotherCertificateIsAnError) {
  const TestCertificate made(authorities.wishes());
  const auto examination = examined(made.pem(), TestCertificate("x").keyPem(), chain());
  EXPECT_THAT(idsOf(examination), ElementsAre("key-mismatch"));
  EXPECT_TRUE(examination.hasErrors());
  EXPECT_FALSE(examination.privateKey);
}

TEST_F(CertificateExaminations, AChainWithoutTheServersOwnCertificateIsToldAsThat) {
  const auto examination = examined(chain(), TestCertificate("x").keyPem());
  EXPECT_THAT(idsOf(examination), ElementsAre("no-server-certificate"));
}

TEST_F(CertificateExaminations, TheWrongOrderIsMendedInAFileThatIsBuiltAnew) {
  const TestCertificate made(authorities.wishes());
  const auto ownLast = examined(chain() + made.pem(), made.keyPem());
  EXPECT_THAT(idsOf(ownLast), ElementsAre("not-first"));
  EXPECT_FALSE(ownLast.hasErrors());
  EXPECT_EQ(ownLast.chain[0].der(), made.der());
  const auto middleLast =
      examined(made.pem() + authorities.root.pem() + authorities.middle.pem(), made.keyPem());
  EXPECT_THAT(idsOf(middleLast), ElementsAre("wrong-order"));
  EXPECT_EQ(middleLast.chain[1].der(), authorities.middle.der());
}

TEST_F(CertificateExaminations, TheWrongOrderMattersInAFileThatIsServed) {
  const TestCertificate made(authorities.wishes());
  const ExaminationRules served{{"example.org"}, kNow, "", true};
  EXPECT_EQ(
      findingOf(examined(chain() + made.pem(), made.keyPem(), "", nullptr, served), "not-first").severity,
      FindingSeverity::error);
  EXPECT_EQ(findingOf(examined(made.pem() + authorities.root.pem() + authorities.middle.pem(), made.keyPem(),
                               "", nullptr, served),
                      "wrong-order")
                .severity,
            FindingSeverity::warning);
  EXPECT_THAT(idsOf(examined(made.pem() + chain(), made.keyPem(), "", nullptr, served)), IsEmpty());
}

TEST_F(CertificateExaminations, AMissingIssuerIsAWarning) {
  const TestCertificate made(authorities.wishes());
  const auto examination = examined(made.pem(), made.keyPem());
  ASSERT_THAT(idsOf(examination), ElementsAre("incomplete-chain"));
  EXPECT_EQ(examination.findings[0].severity, FindingSeverity::warning);
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("CN = Middle"));
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), authorities.middle.pem())),
              ElementsAre("incomplete-chain"));
}

TEST_F(CertificateExaminations, AnIssuerOfTheSameNameThatHasNotSignedIsAnError) {
  const TestCertificate made(authorities.wishes());
  const Authorities others;
  const auto examination = examined(made.pem(), made.keyPem(), others.middle.pem() + others.root.pem());
  ASSERT_THAT(idsOf(examination), ElementsAre("broken-chain"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("was not signed by that of \"CN = Middle\""));
}

TEST_F(CertificateExaminations, AnIssuerThatMaySignNothingIsAnError) {
  auto wishes = authorities.wishes();
  wishes.subject = {TestCertificate::commonName("Server")};
  const TestCertificate server(wishes);
  wishes = authorities.wishes();
  wishes.issuer = &server;
  const TestCertificate made(wishes);
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), server.pem() + chain())), Contains("broken-chain"));
}

TEST_F(CertificateExaminations, CertificatesThatSignEachOtherHaveAnEnd) {
  const TestCertificate one({.subject = {TestCertificate::commonName("one")}, .authority = true});
  const TestCertificate two(
      {.subject = {TestCertificate::commonName("two")}, .issuer = &one, .authority = true});
  const TestCertificate again({.subject = {TestCertificate::commonName("one")},
                               .issuer = &two,
                               .sameKeyAs = &one,
                               .authority = true,
                               .serial = 2});
  auto wishes = authorities.wishes();
  wishes.issuer = &two;
  const TestCertificate made(wishes);
  const auto examination = examined(made.pem(), made.keyPem(), two.pem() + again.pem());
  EXPECT_EQ(examination.chain.size(), 3U);
}

TEST_F(CertificateExaminations, ACertificateThatHasNothingToDoWithItIsLeftOut) {
  const TestCertificate made(authorities.wishes());
  const auto examination = examined(made.pem(), made.keyPem(), chain() + TestCertificate("stray").pem());
  ASSERT_THAT(idsOf(examination), ElementsAre("stray-certificate"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("CN = stray"));
  EXPECT_EQ(examination.chain.size(), 3U);
}

TEST_F(CertificateExaminations, WhoSignedItselfIsTrustedByNobodyUnlessTheMachineDoes) {
  auto wishes = authorities.wishes();
  wishes.issuer = nullptr;
  const TestCertificate made(wishes);
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem())), ElementsAre("self-signed"));
  EXPECT_THAT(
      idsOf(examined(made.pem(), made.keyPem(), "", nullptr, {{"example.org"}, kNow, trusting(made), false})),
      IsEmpty());
}

TEST_F(CertificateExaminations, TheMachinesTrustIsAskedForTheIssuer) {
  const TestCertificate made(authorities.wishes());
  const ExaminationRules trusted{{"example.org"}, kNow, trusting(authorities.root), false};
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), chain(), nullptr, trusted)), IsEmpty());
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), authorities.middle.pem(), nullptr, trusted)),
              IsEmpty());
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), "", nullptr, trusted)),
              ElementsAre("incomplete-chain"));
  const ExaminationRules none{{"example.org"}, kNow, scratch.path(), false};
  const auto untrusted = examined(made.pem(), made.keyPem(), chain(), nullptr, none);
  ASSERT_THAT(idsOf(untrusted), ElementsAre("untrusted-issuer"));
  EXPECT_EQ(untrusted.findings[0].severity, FindingSeverity::warning);
}

TEST_F(CertificateExaminations, ABrokenRuleOfAnAuthorityIsToldInOpenSslsWords) {
  const TestCertificate strict({.subject = {TestCertificate::commonName("Strict")},
                                .issuer = &authorities.root,
                                .authority = true,
                                .extensions = {{"nameConstraints", "permitted;DNS:example.com"}}});
  auto wishes = authorities.wishes();
  wishes.issuer = &strict;
  const TestCertificate made(wishes);
  const auto examination = examined(made.pem(), made.keyPem(), strict.pem() + authorities.root.pem(), nullptr,
                                    {{"example.org"}, kNow, trusting(authorities.root), false});
  ASSERT_THAT(idsOf(examination), ElementsAre("untrusted-chain"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("permitted subtree violation"));
}

TEST_F(CertificateExaminations, EveryDomainThatIsNotNamedIsAnErrorOfItsOwn) {
  const auto examination = examine(
      authorities.wishes(), {{"example.org", "chat.example.org", "example.com", "a.b.example.org"}, kNow});
  ASSERT_THAT(idsOf(examination), ElementsAre("name-missing", "name-missing"));
  EXPECT_EQ(examination.findings[0].domain, "example.com");
  EXPECT_EQ(examination.findings[0].sentence,
            "The certificate is not for \"example.com\"; it names example.org, *.example.org.");
  EXPECT_EQ(examination.findings[1].domain, "a.b.example.org");
}

TEST_F(CertificateExaminations, ManyDomainsThatAreNotNamedDoNotMakeManyFindings) {
  std::vector<std::string> domains;
  domains.reserve(1000);
  for (int number = 0; number < 1000; ++number) domains.push_back(std::to_string(number) + ".example.com");
  const auto examination = examine(authorities.wishes(), {domains, kNow});
  EXPECT_EQ(examination.findings.size(), 21U);
  EXPECT_EQ(examination.findings.back().sentence, "The certificate is not for 980 further domains.");
}

TEST_F(CertificateExaminations, ANameInTheSubjectAloneIsAWarning) {
  auto wishes = authorities.wishes();
  wishes.extensions.clear();
  const auto examination = examine(wishes);
  ASSERT_THAT(idsOf(examination), ElementsAre("common-name-only"));
  EXPECT_EQ(examination.findings[0].severity, FindingSeverity::warning);
}

TEST_F(CertificateExaminations, TheTimeBeforeItAndAfterItIsAnErrorAndTheLastDaysAreAWarning) {
  auto wishes = authorities.wishes();
  wishes.notBefore = kNow + 1;
  EXPECT_THAT(idsOf(examine(wishes)), ElementsAre("not-yet-valid"));
  wishes.notBefore = kNow;
  EXPECT_THAT(idsOf(examine(wishes)), IsEmpty());
  wishes.notBefore = kNow - 100 * kDay;
  wishes.notAfter = kNow;
  EXPECT_THAT(idsOf(examine(wishes)), ElementsAre("expired"));
  wishes.notAfter = kNow + 1;
  EXPECT_THAT(findingOf(examine(wishes), "ends-soon").sentence, HasSubstr("in less than a day"));
  wishes.notAfter = kNow + kDay;
  EXPECT_THAT(findingOf(examine(wishes), "ends-soon").sentence, HasSubstr("in 1 day"));
  wishes.notAfter = kNow + 30 * kDay - 1;
  EXPECT_EQ(findingOf(examine(wishes), "ends-soon").severity, FindingSeverity::warning);
  EXPECT_THAT(findingOf(examine(wishes), "ends-soon").sentence, HasSubstr("in 29 days, on 2027-02-14"));
  wishes.notAfter = kNow + 30 * kDay;
  EXPECT_THAT(idsOf(examine(wishes)), IsEmpty());
}

TEST_F(CertificateExaminations, AnIssuersTimeCountsAsWellAndTheRootsDoesNot) {
  const auto through = [&](std::int64_t notBefore, std::int64_t notAfter) {
    const TestCertificate old({.subject = {TestCertificate::commonName("Old")},
                               .issuer = &authorities.root,
                               .authority = true,
                               .notBefore = notBefore,
                               .notAfter = notAfter});
    auto wishes = authorities.wishes();
    wishes.issuer = &old;
    const TestCertificate made(wishes);
    return examined(made.pem(), made.keyPem(), old.pem() + authorities.root.pem());
  };
  EXPECT_THAT(idsOf(through(kNow - kDay, kNow)), ElementsAre("issuer-expired"));
  EXPECT_THAT(idsOf(through(kNow - kDay, kNow + kDay)), ElementsAre("issuer-ends-soon"));
  EXPECT_THAT(idsOf(through(kNow + kDay, kNow + 100 * kDay)), ElementsAre("issuer-not-yet-valid"));
  const TestCertificate root(
      {.subject = {TestCertificate::commonName("Root")}, .authority = true, .notAfter = kNow - kDay});
  auto wishes = authorities.wishes();
  wishes.issuer = &root;
  const TestCertificate made(wishes);
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), root.pem())), IsEmpty());
}

TEST_F(CertificateExaminations, AShortKeyIsAnError) {
  auto wishes = authorities.wishes();
  wishes.key = "RSA 1024";
  const auto examination = examine(wishes);
  ASSERT_THAT(idsOf(examination), ElementsAre("weak-key"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("RSA 1024"));
  const TestCertificate weak(
      {.subject = {TestCertificate::commonName("Weak")}, .authority = true, .key = "RSA 1024"});
  wishes = authorities.wishes();
  wishes.issuer = &weak;
  const TestCertificate made(wishes);
  EXPECT_THAT(findingOf(examined(made.pem(), made.keyPem(), weak.pem()), "weak-key").sentence,
              HasSubstr("CN = Weak"));
}

TEST_F(CertificateExaminations, KeysThatFewOrNoClientsCanUseAreTold) {
  auto wishes = authorities.wishes();
  wishes.key = "ED25519";
  const auto examination = examine(wishes);
  ASSERT_THAT(idsOf(examination), ElementsAre("rare-key"));
  EXPECT_THAT(examination.findings[0].sentence, HasSubstr("Ed25519"));
  wishes.key = "EC secp256k1";
  EXPECT_THAT(idsOf(examine(wishes)), ElementsAre("rare-key"));
  wishes.key = "DSA 2048";
  EXPECT_THAT(idsOf(examine(wishes)), ElementsAre("unsuitable-key"));
}

TEST_F(CertificateExaminations, ASignatureThatCanBeForgedIsAnErrorExceptOfARoot) {
  const TestCertificate root(
      {.subject = {TestCertificate::commonName("RSA root")}, .authority = true, .key = "RSA 2048"});
  auto wishes = authorities.wishes();
  wishes.issuer = &root;
  for (const char* digest : {"SHA1", "MD5"}) {
    wishes.digest = digest;
    const TestCertificate made(wishes);
    EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), root.pem())), ElementsAre("weak-signature"))
        << digest;
  }
  const TestCertificate old(
      {.subject = {TestCertificate::commonName("Old root")}, .authority = true, .digest = "SHA1"});
  wishes = authorities.wishes();
  wishes.issuer = &old;
  const TestCertificate made(wishes);
  EXPECT_THAT(idsOf(examined(made.pem(), made.keyPem(), old.pem())), IsEmpty());
}

TEST_F(CertificateExaminations, WhatItWasIssuedForIsLookedAt) {
  auto wishes = authorities.wishes();
  wishes.extensions.push_back({"extendedKeyUsage", "clientAuth"});
  EXPECT_THAT(idsOf(examine(wishes)), ElementsAre("not-for-servers"));
  wishes.extensions.back().value = "serverAuth";
  const auto examination = examine(wishes);
  ASSERT_THAT(idsOf(examination), ElementsAre("not-for-clients"));
  EXPECT_EQ(examination.findings[0].severity, FindingSeverity::note);
  wishes.extensions.back().value = "serverAuth,clientAuth";
  EXPECT_THAT(idsOf(examine(wishes)), IsEmpty());
}

TEST_F(CertificateExaminations, AllThatIsWrongIsToldTheWorstFirst) {
  auto wishes = authorities.wishes();
  wishes.issuer = nullptr;
  wishes.notAfter = kNow - 1;
  wishes.key = "ED25519";
  wishes.extensions.push_back({"extendedKeyUsage", "serverAuth"});
  const auto examination = examine(wishes, {{"example.com"}, kNow});
  EXPECT_THAT(idsOf(examination),
              ElementsAre("name-missing", "expired", "self-signed", "rare-key", "not-for-clients"));
  for (const CertificateFinding& finding : examination.findings) {
    EXPECT_TRUE(finding.sentence.ends_with('.')) << finding.sentence;
    EXPECT_TRUE(finding.remedy.ends_with('.')) << finding.remedy;
  }
}

TEST_F(CertificateExaminations, WithoutAKeyTheRestIsExaminedAllTheSame) {
  const TestCertificate made(authorities.wishes());
  const auto examination =
      examined(chain() + made.pem(), "", "", nullptr, {{"example.com"}, kNow, "", false});
  EXPECT_THAT(idsOf(examination), ElementsAre("no-key", "name-missing", "not-first"));
  EXPECT_EQ(examination.chain[0].der(), made.der());
}

TEST_F(CertificateExaminations, FactsAreWhatPeopleWantToKnow) {
  const TestCertificate made(authorities.wishes());
  const auto facts = factsOf(*Certificate::parse(made.der()));
  EXPECT_EQ(facts.subject, "CN = example.org");
  EXPECT_EQ(facts.issuer, "CN = Middle");
  EXPECT_THAT(facts.names, ElementsAre("example.org", "*.example.org"));
  EXPECT_EQ(facts.key, "EC P-256");
  EXPECT_EQ(facts.signature, "ecdsa-with-SHA256");
  EXPECT_EQ(facts.sha256.size(), 64U);
  EXPECT_EQ(daysUntil(kNow + kDay - 1, kNow), 0);
  EXPECT_EQ(daysUntil(kNow - 1, kNow), -1);
  EXPECT_EQ(daysUntil(kNow - kDay, kNow), -1);
}

}  // namespace
}  // namespace tessard
