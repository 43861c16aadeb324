#include "platform/keychain/KeychainManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeClock.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kBridge = "com.velto.KorvBridge.https";

struct KeychainManagement : testing::Test {
  ScratchRoot root;
  FakeClock clock;
  KeychainManager manager{root.path(), clock};

  KeychainResult<ImportReport> import(const std::string& bytes, const char* phrase = nullptr,
                                      bool identityRequired = false) {
    const Secret secret(std::string_view(phrase ? phrase : ""));
    return manager.importFile(bytes, phrase ? &secret : nullptr, identityRequired);
  }
  KeychainProblem problemOf(const std::string& bytes, const char* phrase = nullptr,
                            bool identityRequired = false) {
    const auto imported = import(bytes, phrase, identityRequired);
    EXPECT_FALSE(imported) << "it was imported";
    return imported ? KeychainProblem::io : imported.error().problem;
  }
  std::vector<CertificateRecord> all() { return manager.certificates().value(); }
};

TEST_F(KeychainManagement, AKeychainThatIsNotThereIsEmptyAndIsNotMade) {
  EXPECT_THAT(all(), IsEmpty());
  EXPECT_EQ(manager.certificate("x").error().problem, KeychainProblem::notFound);
  EXPECT_EQ(manager.clearPreferred(kBridge).value(), false);
  EXPECT_EQ(manager.removeCertificate("x").error().problem, KeychainProblem::notFound);
  EXPECT_EQ(manager.removePassword("x").value(), false);
  EXPECT_EQ(manager.removePassPhrase("/x").value(), false);
  EXPECT_FALSE(manager.passPhrase("/x").value());
  EXPECT_THAT(manager.passPhraseFiles().value(), IsEmpty());
  EXPECT_THAT(manager.passwordAccounts().value(), IsEmpty());
  EXPECT_FALSE(root.exists("/var/lib"));
}

TEST_F(KeychainManagement, ACertificateWithItsKeyIsListedWithAllThatItSays) {
  const TestCertificate made(
      {.subject = {TestCertificate::topic("com.example.topic"), TestCertificate::commonName("Push, \"all\"")},
       .notBefore = 1'600'000'000,
       .notAfter = 4'000'000'000,
       .serial = 0x1ab});
  const auto report = import(made.pem() + made.keyPem()).value();
  EXPECT_EQ(report.added, 1U);
  EXPECT_TRUE(report.keyAdded);
  const auto records = all();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].subject, "UID = com.example.topic, CN = Push\\, \\\"all\\\"");
  EXPECT_EQ(records[0].issuer, records[0].subject);
  EXPECT_EQ(records[0].serial, "01AB");
  EXPECT_EQ(records[0].notBefore, 1'600'000'000);
  EXPECT_EQ(records[0].notAfter, 4'000'000'000);
  EXPECT_FALSE(records[0].expired);
  EXPECT_TRUE(records[0].hasKey);
  EXPECT_EQ(records[0].topic, "com.example.topic");
  EXPECT_THAT(records[0].preferredFor, IsEmpty());
  EXPECT_EQ(records[0].sha256.size(), 64U);
}

TEST_F(KeychainManagement, TheSameFileAgainAddsNothing) {
  const TestCertificate made("a");
  ASSERT_TRUE(import(made.pem() + made.keyPem()));
  const auto again = import(made.pem() + made.keyPem()).value();
  EXPECT_EQ(again.added, 0U);
  EXPECT_FALSE(again.keyAdded);
  ASSERT_EQ(again.certificates.size(), 1U);
  EXPECT_TRUE(again.certificates[0].hasKey);
  EXPECT_EQ(all().size(), 1U);
}

TEST_F(KeychainManagement, AKeyThatComesAfterItsCertificateMakesItAnIdentity) {
  const TestCertificate made("a");
  ASSERT_TRUE(import(made.pem()));
  EXPECT_FALSE(all()[0].hasKey);
  const auto later = import(made.keyPem() + made.pem()).value();
  EXPECT_EQ(later.added, 0U);
  EXPECT_TRUE(later.keyAdded);
  EXPECT_TRUE(all()[0].hasKey);
}

TEST_F(KeychainManagement, AnEncryptedKeyNeedsItsPassPhrase) {
  const TestCertificate made("a");
  for (const bool traditional : {false, true}) {
    const std::string pem = made.pem() + made.keyPem("secret words", traditional);
    EXPECT_EQ(problemOf(pem), KeychainProblem::passPhraseNeeded);
    EXPECT_EQ(problemOf(pem, ""), KeychainProblem::wrongPassPhrase);
    EXPECT_EQ(problemOf(pem, "secret"), KeychainProblem::wrongPassPhrase);
    EXPECT_TRUE(import(pem, "secret words"));
  }
  EXPECT_TRUE(all()[0].hasKey);
}

TEST_F(KeychainManagement, Pkcs12NeedsItsPassPhraseAndBringsTheChain) {
  const TestCertificate authority({.subject = {TestCertificate::commonName("root")}, .authority = true});
  const TestCertificate made({.subject = {TestCertificate::commonName("leaf")}, .issuer = &authority});
  const std::string file = made.pkcs12("secret", {&authority});
  EXPECT_EQ(problemOf(file), KeychainProblem::passPhraseNeeded);
  EXPECT_EQ(problemOf(file, "Secret"), KeychainProblem::wrongPassPhrase);
  EXPECT_FALSE(root.exists("/var/lib"));
  const auto report = import(file, "secret", true).value();
  EXPECT_EQ(report.added, 2U);
  EXPECT_EQ(report.certificates[0].subject, "CN = leaf");
  EXPECT_TRUE(report.certificates[0].hasKey);
  EXPECT_EQ(report.certificates[1].subject, "CN = root");
  EXPECT_FALSE(report.certificates[1].hasKey);
}

TEST_F(KeychainManagement, Pkcs12WithoutAPassPhraseNeedsNone) {
  EXPECT_TRUE(import(TestCertificate("a").pkcs12("")));
  EXPECT_TRUE(import(TestCertificate("b").pkcs12(""), ""));
  EXPECT_EQ(all().size(), 2U);
}

TEST_F(KeychainManagement, AKeyOfAnotherCertificateIsRefused) {
  EXPECT_EQ(problemOf(TestCertificate("a").pem() + TestCertificate("a").keyPem()),
            KeychainProblem::keyMismatch);
  EXPECT_FALSE(root.exists("/var/lib"));
}

TEST_F(KeychainManagement, AnIdentityWithoutItsKeyIsRefusedWhereOneIsRequired) {
  const TestCertificate made("a");
  EXPECT_EQ(problemOf(made.pem(), nullptr, true), KeychainProblem::noKey);
  EXPECT_EQ(problemOf(made.pkcs12("x", {}, false), "x", true), KeychainProblem::noKey);
  EXPECT_THAT(all(), IsEmpty());
}

TEST_F(KeychainManagement, ARenewedCertificateFindsTheKeyThatIsThere) {
  const TestCertificate made("old");
  const TestCertificate renewed({.subject = {TestCertificate::commonName("new")}, .sameKeyAs = &made});
  ASSERT_TRUE(import(made.pem() + made.keyPem()));
  EXPECT_TRUE(import(renewed.pem(), nullptr, true).value().certificates[0].hasKey);
  // The key goes with the last certificate that it belongs to.
  ASSERT_TRUE(manager.removeCertificate("old"));
  EXPECT_TRUE(all()[0].hasKey);
  ASSERT_TRUE(manager.removeCertificate("new"));
  ASSERT_TRUE(import(renewed.pem()));
  EXPECT_FALSE(all()[0].hasKey);
}

TEST_F(KeychainManagement, AChainMayStandInAnyOrderAndEndAnywhere) {
  const TestCertificate top({.subject = {TestCertificate::commonName("top")}, .authority = true});
  const TestCertificate middle(
      {.subject = {TestCertificate::commonName("middle")}, .issuer = &top, .authority = true});
  const TestCertificate leaf({.subject = {TestCertificate::commonName("leaf")}, .issuer = &middle});
  const auto report = import(top.pem() + middle.pem() + leaf.keyPem() + leaf.pem()).value();
  EXPECT_EQ(report.certificates[0].subject, "CN = leaf");
  EXPECT_EQ(report.added, 3U);
  EXPECT_TRUE(import(leaf.pem() + middle.pem()));
  // Without a key the first is the one that the others issued.
  EXPECT_EQ(problemOf(middle.pem() + leaf.pem()), KeychainProblem::brokenChain);
}

TEST_F(KeychainManagement, AChainWithALinkThatIsNoneIsRefused) {
  const TestCertificate top({.subject = {TestCertificate::commonName("top")}, .authority = true});
  const TestCertificate twin({.subject = {TestCertificate::commonName("top")}, .authority = true});
  const TestCertificate plain("plain");
  const TestCertificate leaf({.subject = {TestCertificate::commonName("leaf")}, .issuer = &top});
  const TestCertificate byPlain({.subject = {TestCertificate::commonName("by plain")}, .issuer = &plain});
  EXPECT_EQ(problemOf(leaf.pem() + twin.pem()), KeychainProblem::brokenChain);
  EXPECT_EQ(problemOf(leaf.pkcs12("x", {&twin}), "x"), KeychainProblem::brokenChain);
  EXPECT_EQ(problemOf(leaf.pem() + plain.pem()), KeychainProblem::brokenChain);
  EXPECT_EQ(problemOf(leaf.pem() + top.pem() + plain.pem()), KeychainProblem::brokenChain);
  EXPECT_THAT(import(leaf.pem() + twin.pem()).error().text,
              HasSubstr("was not signed by that of \"CN = top\""));
  EXPECT_THAT(import(leaf.pem() + plain.pem()).error().text,
              HasSubstr("\"CN = plain\" has not issued any other one"));
  EXPECT_THAT(all(), IsEmpty());
}

TEST_F(KeychainManagement, AnExpiredCertificateIsTakenAndSaidToBeExpired) {
  clock.time = {1'800'000'000, 0};
  const TestCertificate made({.subject = {TestCertificate::commonName("a")}, .notAfter = 1'799'999'999});
  const TestCertificate valid({.subject = {TestCertificate::commonName("b")}, .notAfter = 1'800'000'000});
  EXPECT_TRUE(import(made.pem()).value().certificates[0].expired);
  EXPECT_FALSE(import(valid.pem()).value().certificates[0].expired);
}

TEST_F(KeychainManagement, WhatIsNoCertificateFileIsRefusedAndNothingIsMade) {
  const TestCertificate made("a");
  EXPECT_EQ(problemOf(""), KeychainProblem::malformed);
  EXPECT_EQ(problemOf("hello"), KeychainProblem::malformed);
  EXPECT_EQ(problemOf(std::string(100, '\0')), KeychainProblem::malformed);
  EXPECT_EQ(problemOf("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"),
            KeychainProblem::malformed);
  EXPECT_EQ(problemOf(made.pem().substr(0, 200)), KeychainProblem::malformed);
  EXPECT_EQ(problemOf(made.pem() + made.keyPem() + TestCertificate("b").keyPem()),
            KeychainProblem::malformed);
  EXPECT_EQ(problemOf(made.keyPem()), KeychainProblem::noCertificate);
  EXPECT_EQ(problemOf(std::string(1024 * 1024 + 1, 'x')), KeychainProblem::tooLarge);
  const std::string file = made.pkcs12("x");
  EXPECT_EQ(problemOf(file.substr(0, file.size() - 1), "x"), KeychainProblem::malformed);
  EXPECT_EQ(problemOf(file + "x", "x"), KeychainProblem::malformed);
  EXPECT_FALSE(root.exists("/var/lib"));
}

TEST_F(KeychainManagement, ACertificateIsMeantByItsDigestOrAPartOfItsSubject) {
  const TestCertificate first("First one");
  const TestCertificate second("second One");
  ASSERT_TRUE(import(first.pem()));
  ASSERT_TRUE(import(second.pem()));
  const std::string digest = all()[1].sha256;
  EXPECT_EQ(manager.certificate("FIRST").value().subject, "CN = First one");
  EXPECT_EQ(manager.certificate(digest).value().subject, "CN = second One");
  EXPECT_EQ(manager.certificate(digest.substr(0, 2) + ":" + digest.substr(2, 6)).value().sha256, digest);
  EXPECT_EQ(manager.certificate("one").error().problem, KeychainProblem::ambiguous);
  EXPECT_EQ(manager.certificate("third").error().problem, KeychainProblem::notFound);
  EXPECT_EQ(manager.certificate("").error().problem, KeychainProblem::invalidRequest);
}

TEST_F(KeychainManagement, AnIdentityIsPreferredForANameUntilAnotherOneIsOrItIsGone) {
  const TestCertificate first("first");
  const TestCertificate second("second");
  ASSERT_TRUE(import(first.pem() + first.keyPem()));
  ASSERT_TRUE(import(second.pem() + second.keyPem()));
  EXPECT_THAT(manager.prefer(kBridge, "first").value().preferredFor, ElementsAre(kBridge));
  EXPECT_THAT(manager.prefer("another", "first").value().preferredFor, ElementsAre("another", kBridge));
  EXPECT_THAT(manager.prefer(kBridge, "second").value().preferredFor, ElementsAre(kBridge));
  EXPECT_THAT(all()[0].preferredFor, ElementsAre("another"));
  EXPECT_TRUE(manager.clearPreferred("another").value());
  EXPECT_FALSE(manager.clearPreferred("another").value());
  EXPECT_TRUE(manager.removeCertificate("second"));
  EXPECT_FALSE(manager.clearPreferred(kBridge).value());
}

TEST_F(KeychainManagement, OnlyAnIdentityCanBePreferredAndOnlyForARealName) {
  ASSERT_TRUE(import(TestCertificate("a").pem()));
  EXPECT_EQ(manager.prefer(kBridge, "a").error().problem, KeychainProblem::noKey);
  EXPECT_EQ(manager.prefer(kBridge, "b").error().problem, KeychainProblem::notFound);
  for (const std::string& name :
       {std::string(), std::string("a\nb"), std::string(256, 'a'), std::string("\xff")}) {
    EXPECT_EQ(manager.prefer(name, "a").error().problem, KeychainProblem::invalidRequest);
  }
}

TEST_F(KeychainManagement, APassPhraseIsKeptOnlyWhenItOpensTheKey) {
  const TestCertificate made("a");
  const std::string pem = made.pem() + made.keyPem("right");
  EXPECT_EQ(manager.setPassPhrase("/k.pem", pem, Secret("wrong")).error().problem,
            KeychainProblem::wrongPassPhrase);
  EXPECT_EQ(manager.setPassPhrase("/k.pem", made.pem(), Secret("x")).error().problem, KeychainProblem::noKey);
  EXPECT_EQ(manager.setPassPhrase("/k.pem", made.keyPem(), Secret("x")).error().problem,
            KeychainProblem::invalidRequest);
  for (const std::string& phrase :
       {std::string(), std::string("a\nb"), std::string("a\0b", 3), std::string("\xff"), std::string("a${b"),
        std::string("a@HOSTNAME@b"), std::string("@ROUTERPASSWORD@")}) {
    EXPECT_EQ(manager.setPassPhrase("/k.pem", made.keyPem(phrase), Secret(phrase)).error().problem,
              KeychainProblem::invalidRequest);
  }
  EXPECT_FALSE(root.exists("/var/lib"));
  ASSERT_TRUE(manager.setPassPhrase("/k.pem", pem, Secret("right")));
  EXPECT_EQ(manager.passPhrase("/k.pem").value()->view(), "right");
  ASSERT_TRUE(manager.setPassPhrase("/k.pem", made.keyPem("newer", true), Secret("newer")));
  EXPECT_EQ(manager.passPhrase("/k.pem").value()->view(), "newer");
  const std::string strange = " $ {x} ]]>--'\"&<ü ";
  ASSERT_TRUE(manager.setPassPhrase("/k.pem", made.keyPem(strange), Secret(strange)));
  EXPECT_EQ(manager.passPhrase("/k.pem").value()->view(), strange);
  EXPECT_FALSE(manager.passPhrase("/other.pem").value());
  EXPECT_THAT(manager.passPhraseFiles().value(), ElementsAre("/k.pem"));
  EXPECT_TRUE(manager.removePassPhrase("/k.pem").value());
  EXPECT_FALSE(manager.removePassPhrase("/k.pem").value());
}

}  // namespace
}  // namespace tessard
