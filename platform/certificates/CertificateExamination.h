#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/certificates/CertificateFinding.h"
#include "platform/certificates/CertificateMaterial.h"
#include "platform/keychain/Certificate.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// So long before its end a certificate is told to end soon.
inline constexpr int kDaysOfWarning = 30;

/// What a certificate is to be good for.
struct ExaminationRules {
  std::vector<std::string> domains;  ///< that the server serves
  std::int64_t now = 0;              ///< seconds since 1970
  /// Of trusted certificates, a path of the machine; empty: whether anybody trusts the issuer is not asked.
  std::string trustDirectory{};
  /// A server reads the certificate file as it stands, so that its order matters. Otherwise it is to be built
  /// anew.
  bool isServed = false;
};

/// Facts of one certificate, for people.
struct CertificateFacts {
  std::string subject;
  std::string issuer;
  std::string serial;              ///< hexadecimal digits, in capitals
  std::string sha256;              ///< of the whole certificate: 64 hexadecimal digits, in capitals
  std::int64_t notBefore = 0;      ///< seconds since 1970
  std::int64_t notAfter = 0;       ///< seconds since 1970
  std::vector<std::string> names;  ///< see `CertificateNames::all`
  std::string key;                 ///< "RSA 2048", "EC P-256", "Ed25519"
  std::string signature;           ///< "RSA-SHA256"
};

CertificateFacts factsOf(const Certificate& certificate);

/// Whole days until then, rounded down; negative when it has passed.
std::int64_t daysUntil(std::int64_t then, std::int64_t now);

struct CertificateExamination {
  /// The worst first; among equals in the order of the examination. All that is wrong is told, as far as the
  /// files can be read.
  std::vector<CertificateFinding> findings;
  std::vector<Certificate> chain;  ///< the server's own first, then each issuer; empty when it is unknown
  std::optional<Secret>
      privateKey;  ///< in PKCS#8, not encrypted; absent without one that fits the certificate

  bool hasErrors() const;
};

/// Examines what is to be, or is, the certificate of a TLS server of XMPP. Nothing but the trust directory is
/// opened. Nothing throws, but where memory is exhausted; copies of the key are wiped.
///
/// Ids of findings, besides those of `readMaterial`. Errors: "no-server-certificate" (only authorities' are
/// there), "key-mismatch", "broken-chain", "name-missing" (one for each domain), "expired", "not-yet-valid",
/// "issuer-expired", "issuer-not-yet-valid", "weak-key", "unsuitable-key", "weak-signature",
/// "not-for-servers", and where the file is served "not-first". Warnings: "wrong-order", "stray-certificate",
/// "incomplete-chain", "self-signed", "untrusted-issuer", "untrusted-chain", "common-name-only", "ends-soon",
/// "issuer-ends-soon", "rare-key". Notes: "not-for-clients", and both of order where the file is built anew.
CertificateExamination examineCertificate(const CertificateMaterial& material, const ExaminationRules& rules);

}  // namespace tessard
