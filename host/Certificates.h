#pragma once

#include <string>

#include "common/Clock.h"
#include "common/Result.h"
#include "common/Value.h"
#include "host/HttpMessage.h"
#include "platform/keychain/KeychainResult.h"

namespace tessard {

/// The certificates of one system root, for requests. Used on the thread of the work slot. Nothing that was
/// sent is kept or logged.
class Certificates {
 public:
  /// The clock is borrowed.
  Certificates(std::string root, Clock& clock) : root_(std::move(root)), clock_(clock) {}

  /// {"certificates": [...]}, oldest first, each as `CertificateRecord` tells: "subject", "issuer", "serial",
  /// "sha256", "notBefore", "notAfter", "expired", "hasKey", "topic" where there is one, "preferredFor".
  KeychainResult<Dictionary> all();

  /// Puts in what the bytes (or the text) under "file" hold, opened with the text under "passPhrase" where
  /// there is one: {"certificates": those of the file, "added", "keyAdded"}. "invalid-request" for entries of
  /// other kinds.
  KeychainResult<Dictionary> import(const Dictionary& request);

  /// The answer for a failure, with the problem's own id.
  static HttpAnswer failure(const KeychainError& error);

 private:
  std::string root_;
  Clock& clock_;
};

}  // namespace tessard
