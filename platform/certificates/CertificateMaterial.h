#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "platform/certificates/CertificateFinding.h"
#include "platform/keychain/Certificate.h"
#include "platform/keychain/OpenSsl.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// What somebody has of a certificate: the contents of files, each in PEM (with LF or CRLF), DER, PKCS#12 or
/// PKCS#7, in one file or in several; empty for none. Where it is PEM it may hold more than its name says.
struct CertificateMaterial {
  static constexpr std::size_t kSizeLimit = std::size_t{1024} * 1024;  // of each

  std::string_view certificate;
  std::string_view chain{};
  std::string_view key{};
  const Secret* passPhrase = nullptr;  ///< for whatever is encrypted, borrowed
};

/// What was found in it.
struct CertificateContent {
  std::vector<Certificate> certificates;  ///< each once, in the order of the files
  KeyPointer key;                         ///< null when there is none that can be used
  bool ordered = true;                    ///< the files have an order: none of them is PKCS#12 or PKCS#7
  bool isWhole = true;  ///< the certificates are all that the files hold: none of those could not be read
  /// In the way of the rest where they are errors: "too-large", "malformed", "legacy-provider-missing",
  /// "pass-phrase-needed", "wrong-pass-phrase", "several-keys", "no-certificate", "no-key"; otherwise
  /// "old-ciphers", "repeated-certificate".
  std::vector<CertificateFinding> findings;
};

/// Nothing throws, but where memory is exhausted.
CertificateContent readMaterial(const CertificateMaterial& material);

}  // namespace tessard
