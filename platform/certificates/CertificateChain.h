#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/certificates/CertificateFinding.h"
#include "platform/keychain/Certificate.h"

namespace tessard {

/// The certificates that a server shows, and what became of the others.
struct CertificateChain {
  std::vector<Certificate> links;  ///< the server's own, the one that issued it, and so on
  std::vector<Certificate> strays;
  bool inOrder = true;      ///< they were in this order
  bool ownWasFirst = true;  ///< the server's own was the first of all
  /// A certificate names this one of the strays as its issuer, and was not signed by it: the index of the
  /// link.
  std::optional<std::size_t> brokenAt;
};

/// Sorts certificates into the chain of the one at `own`, each link signed by the next.
CertificateChain chainOf(std::vector<Certificate> certificates, std::size_t own);

enum class ChainTrust {
  trusted,
  untrustedRoot,  ///< it ends with a certificate that signed itself and is not in the store
  selfSigned,     ///< the same, and there is but that one
  incomplete,     ///< the next issuer is neither among the links nor in the store
  refused,        ///< another rule is broken; `reason` says which
};

struct ChainVerdict {
  ChainTrust trust = ChainTrust::trusted;
  std::string reason{};
};

/// Whether a chain leads to a certificate in a directory of trusted ones, such as "/etc/ssl/certs" (a path of
/// the machine, empty for none; with names that "openssl rehash" makes). Times are left out of account.
ChainVerdict verify(const std::vector<Certificate>& links, const std::string& trustDirectory);

}  // namespace tessard
