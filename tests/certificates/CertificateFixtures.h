#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "platform/certificates/CertificateExamination.h"
#include "tests/support/TestCertificates.h"

namespace tessard {

inline constexpr std::int64_t kNow = 1'800'000'000;
inline constexpr std::int64_t kDay = 86400;

/// A certificate for "example.org" as authorities issue them, and its issuers; tests change what they are
/// about.
struct Authorities {
  TestCertificate root{{.subject = {TestCertificate::commonName("Root")}, .authority = true}};
  TestCertificate middle{
      {.subject = {TestCertificate::commonName("Middle")}, .issuer = &root, .authority = true}};

  TestCertificate::Wishes wishes() const {
    return {.subject = {TestCertificate::commonName("example.org")},
            .issuer = &middle,
            .extensions = {{"subjectAltName", "DNS:example.org,DNS:*.example.org"}}};
  }
};

inline CertificateExamination examined(const std::string& certificate, const std::string& key,
                                       const std::string& chain = "", const char* passPhrase = nullptr,
                                       const ExaminationRules& rules = {{"example.org"}, kNow}) {
  const Secret phrase(std::string_view(passPhrase ? passPhrase : ""));
  return examineCertificate({certificate, chain, key, passPhrase ? &phrase : nullptr}, rules);
}

inline std::vector<std::string> idsOf(const CertificateExamination& examination) {
  std::vector<std::string> ids;
  for (const CertificateFinding& finding : examination.findings) ids.push_back(finding.id);
  return ids;
}

/// The first finding with this id; one without an id when there is none.
inline CertificateFinding findingOf(const CertificateExamination& examination, const std::string& id) {
  const auto found = std::ranges::find(examination.findings, id, &CertificateFinding::id);
  return found == examination.findings.end() ? CertificateFinding{} : *found;
}

}  // namespace tessard
