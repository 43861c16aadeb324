#pragma once

#include <string_view>
#include <vector>

#include "platform/keychain/Certificate.h"
#include "platform/keychain/KeychainResult.h"
#include "platform/keychain/OpenSsl.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// What a PKCS#12 file holds.
struct Pkcs12Content {
  std::vector<Certificate> certificates;  ///< no two alike, in any order
  KeyPointer key;                         ///< null when there is none
  bool oldCiphers = false;                ///< OpenSSL 3 opens it with its provider "legacy" alone
};

/// Opens one. Without a pass phrase, or with an empty one, those that are sealed with none open too. Fails
/// with `malformed` (also for one that asks for too much work), `passPhraseNeeded`, `wrongPassPhrase` or
/// `oldCiphers`.
KeychainResult<Pkcs12Content> readPkcs12(std::string_view bytes, const Secret* passPhrase);

}  // namespace tessard
