#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/keychain/Certificate.h"
#include "platform/keychain/KeychainResult.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// What a file brings for a keychain.
struct CertificateFile {
  static constexpr std::size_t kSizeLimit = std::size_t{1024} * 1024;

  /// The certificate that the file is about comes first; those that issued it follow, in any order.
  std::vector<Certificate> certificates;
  std::optional<Secret> privateKey;  ///< of the first certificate, in PKCS#8
};

/// Reads PKCS#12, or PEM with certificates and at most one private key in any order. The certificate is the
/// one that the key belongs to, or the first when there is no key. Every other certificate must have issued
/// it, or one of its issuers; where the chain ends does not matter.
///
/// Fails with `tooLarge`, `malformed`, `oldCiphers`, `passPhraseNeeded` (when something is encrypted and
/// there is none), `wrongPassPhrase`, `noCertificate`, `keyMismatch` or `brokenChain`.
KeychainResult<CertificateFile> readCertificateFile(std::string_view bytes, const Secret* passPhrase);

}  // namespace tessard
