#include "platform/certificates/CertificateNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

CertificateNames namesWith(const std::string& alternatives, const std::string& commonName = "Somebody") {
  TestCertificate::Wishes wishes{.subject = {TestCertificate::commonName(commonName)}};
  if (!alternatives.empty()) wishes.extensions = {{"subjectAltName", alternatives}};
  return namesOf(*Certificate::parse(TestCertificate(wishes).der()));
}

NameMatch match(const std::string& alternatives, const std::string& domain) {
  return matchOf(namesWith(alternatives), domain);
}

TEST(CertificateNames, AreReadFromEveryKindOfAlternativeName) {
  const auto names = namesWith(
      "DNS:b.example,DNS:a.example,otherName:1.3.6.1.5.5.7.8.5;UTF8:c.example,"
      "otherName:1.3.6.1.5.5.7.8.7;IA5:_xmpp-client.d.example,email:x@e.example,IP:127.0.0.1");
  EXPECT_THAT(names.hosts, ElementsAre("b.example", "a.example"));
  EXPECT_THAT(names.addresses, ElementsAre("c.example"));
  EXPECT_THAT(names.services, ElementsAre("_xmpp-client.d.example"));
  EXPECT_EQ(names.commonName, "Somebody");
  EXPECT_THAT(names.all(), ElementsAre("b.example", "a.example", "c.example", "_xmpp-client.d.example"));
}

TEST(CertificateNames, OfACertificateWithoutAlternativesAreTheCommonName) {
  EXPECT_FALSE(namesWith("").hasAlternatives());
  EXPECT_THAT(namesWith("", "example.org").all(), ElementsAre("example.org"));
  EXPECT_THAT(namesWith("email:x@example.org").hosts, IsEmpty());
}

TEST(CertificateNames, AHostCountsWhateverItsCase) {
  EXPECT_EQ(match("DNS:example.org", "example.org"), NameMatch::certain);
  EXPECT_EQ(match("DNS:Example.ORG", "eXample.org"), NameMatch::certain);
  EXPECT_EQ(match("DNS:example.org", "example.org."), NameMatch::certain);
  EXPECT_EQ(match("DNS:example.org", "chat.example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:chat.example.org", "example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:example.org", "xample.org"), NameMatch::none);
}

TEST(CertificateNames, AWildcardStandsForOneWholeLabel) {
  EXPECT_EQ(match("DNS:*.example.org", "chat.example.org"), NameMatch::certain);
  EXPECT_EQ(match("DNS:*.example.org", "example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:*.example.org", "a.chat.example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:*.example.org", ".example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:c*.example.org", "chat.example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:chat.*.org", "chat.example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:*.org", "example.org"), NameMatch::none);
  EXPECT_EQ(match("DNS:*", "localhost"), NameMatch::none);
}

TEST(CertificateNames, AnXmppAddressAndAServiceOfClientsCount) {
  EXPECT_EQ(match("otherName:1.3.6.1.5.5.7.8.5;UTF8:example.org", "example.org"), NameMatch::certain);
  EXPECT_EQ(match("otherName:1.3.6.1.5.5.7.8.5;UTF8:*.example.org", "a.example.org"), NameMatch::none);
  EXPECT_EQ(match("otherName:1.3.6.1.5.5.7.8.7;IA5:_xmpp-client.example.org", "example.org"),
            NameMatch::certain);
  EXPECT_EQ(match("otherName:1.3.6.1.5.5.7.8.7;IA5:_xmpp-server.example.org", "example.org"),
            NameMatch::none);
}

TEST(CertificateNames, ADomainOfOtherLettersIsNamedAsHostsAre) {
  EXPECT_EQ(asciiFormOf("m\u00fcnchen.example"), "xn--mnchen-3ya.example");
  EXPECT_EQ(asciiFormOf("plain.example"), "plain.example");
  EXPECT_EQ(asciiFormOf("no_host."), "no_host.");
  EXPECT_EQ(match("DNS:xn--mnchen-3ya.example", "m\u00fcnchen.example"), NameMatch::certain);
  EXPECT_EQ(match("DNS:XN--mnchen-3ya.example", "M\u00dcNCHEN.example"), NameMatch::certain);
  EXPECT_EQ(match("DNS:*.xn--mnchen-3ya.example", "chat.m\u00fcnchen.example"), NameMatch::certain);
  EXPECT_EQ(match("DNS:munchen.example", "m\u00fcnchen.example"), NameMatch::none);
}

TEST(CertificateNames, TheCommonNameCountsOnlyWhereThereIsNothingElse) {
  EXPECT_EQ(matchOf(namesWith("", "example.org"), "example.org"), NameMatch::commonName);
  EXPECT_EQ(matchOf(namesWith("DNS:other.example", "example.org"), "example.org"), NameMatch::none);
}

TEST(CertificateNames, ANameWithAHiddenEndIsNone) {
  EXPECT_THAT(namesWith("DNS:example.org\\00.evil.example").hosts,
              testing::Not(testing::Contains("example.org")));
}

}  // namespace
}  // namespace tessard
