#pragma once

#include <string>

#include "platform/certificates/CertificateFinding.h"
#include "platform/keychain/Certificate.h"

namespace tessard {

/// What OpenSSL's security level 2, which is Debian's, asks of keys and signatures.
inline constexpr int kLeastSecurityBits = 112;

/// "RSA 2048", "EC P-256", "Ed25519"; "unknown" for a key that cannot be read.
std::string keyOf(const Certificate& certificate);
/// "RSA-SHA256", "ecdsa-with-SHA256", "ED25519".
std::string signatureOf(const Certificate& certificate);

/// The key is too short.
bool hasWeakKey(const Certificate& certificate);
/// It was signed with a digest that can be forged. Never so of one that signed itself, as nobody asks.
bool hasWeakSignature(const Certificate& certificate);

enum class KeyUse { common, rare, unsuitable };
/// Whether XMPP clients can use such a key: all, some, or none.
KeyUse useOfKey(const Certificate& certificate);

/// Whether it may sign other certificates and says so.
bool isAuthority(const Certificate& certificate);

/// Whether its extensions allow that a server, or a client, uses it with TLS.
bool isForServers(const Certificate& certificate);
bool isForClients(const Certificate& certificate);

}  // namespace tessard
