#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/keychain/KeychainResult.h"
#include "platform/keychain/OpenSsl.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// One block of a PEM file: what stands between its "BEGIN" and "END" lines.
struct PemBlock {
  std::string name;  ///< such as "CERTIFICATE"
  bool encrypted = false;
  Secret bytes;  ///< still encrypted where it is

  bool isPrivateKey() const { return name.ends_with("PRIVATE KEY"); }
  bool isCertificate() const { return name.ends_with("CERTIFICATE"); }
};

/// Absent when a block is broken off or holds what is no base64. Text around the blocks is left out.
std::optional<std::vector<PemBlock>> pemBlocks(std::string_view pem);

/// The private key among the blocks of a file that has one alone; the pass phrase is needed for an encrypted
/// key and ignored for others. Fails with `passPhraseNeeded`, `wrongPassPhrase` or `malformed`.
KeychainResult<KeyPointer> readPrivateKey(std::string_view pem, const Secret* passPhrase);

/// A key in PKCS#8, not encrypted, and back. Absent when it cannot be.
std::optional<Secret> encodedKey(EVP_PKEY* key);
KeyPointer decodedKey(std::string_view pkcs8);

}  // namespace tessard
