#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "common/Result.h"
#include "platform/keychain/Certificate.h"

namespace tessard {

/// How an entrance of an XMPP server begins TLS.
enum class TlsEntranceKind {
  clients,        ///< with STARTTLS, as clients do
  clientsAtOnce,  ///< from the first byte
  servers,        ///< with STARTTLS, as other servers do
};

struct TlsEntrance {
  TlsEntranceKind kind = TlsEntranceKind::clients;
  std::uint16_t port = 0;
};

/// "clients", "clients-at-once", "servers".
const char* wordFor(TlsEntranceKind kind);

/// The certificate that is shown at a port of this machine (127.0.0.1, or ::1 where nobody listens there) to
/// who wants the domain. It is not judged. Fails with a sentence without a full stop: nobody listens, TLS is
/// not offered, or nothing is heard in time. The process must catch or ignore SIGPIPE.
Result<Certificate> servedCertificate(const TlsEntrance& entrance, const std::string& domain,
                                      std::chrono::milliseconds patience);

}  // namespace tessard
