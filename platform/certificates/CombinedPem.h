#pragma once

#include <optional>

#include "platform/certificates/CertificateExamination.h"
#include "platform/keychain/Secret.h"

namespace tessard {

/// The one file that jabberd2 takes: the certificates of the chain in its order, then the private key, not
/// encrypted, all in PEM. Absent when there is no chain or no key.
std::optional<Secret> combinedPem(const CertificateExamination& examination);

}  // namespace tessard
