#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "common/Keychain.h"

namespace tessard {

/// What stands in the way of an operation on a keychain, or of a file on its way into it.
enum class KeychainProblem {
  // of the request
  invalidRequest,
  notFound,
  ambiguous,
  duplicate,
  notAllowed,  ///< by the item's access list
  noDefault,   ///< there is no keychain that new items go to
  // of a file with certificates and keys
  tooLarge,
  malformed,
  oldCiphers,  ///< it cannot be opened without a part of OpenSSL that is missing
  passPhraseNeeded,
  wrongPassPhrase,
  noCertificate,
  noKey,
  keyMismatch,  ///< the private key is not that of the certificate
  brokenChain,
  // of the store
  notPermitted,  ///< to this user
  unsafe,        ///< others have, or could have, read or changed it; or something else stands in its place
  keyMissing,    ///< the key file
  wrongKey,      ///< the key file's content
  damaged,
  newer,  ///< made by a later version of this program
  busy,
  full,
  readOnly,
  io,
};

/// Why an operation failed. The text is a sentence without a full stop that holds no secret.
struct KeychainError {
  KeychainProblem problem = KeychainProblem::io;
  std::string text;

  OSStatus status() const;
  /// A stable name for programs, such as "wrong-pass-phrase".
  std::string_view id() const;
};

/// The value of a keychain operation, or the reason why it failed. `value()` may be called only after `ok()`,
/// `error()` only when not `ok()`.
template <class T>
class [[nodiscard]] KeychainResult {
 public:
  KeychainResult(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  KeychainResult(KeychainError error) : content_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return content_.index() == 0; }
  explicit operator bool() const { return ok(); }
  const T& value() const& { return std::get<0>(content_); }
  T& value() & { return std::get<0>(content_); }
  T&& value() && { return std::get<0>(std::move(content_)); }
  const KeychainError& error() const { return std::get<1>(content_); }

 private:
  std::variant<T, KeychainError> content_;
};

template <>
class [[nodiscard]] KeychainResult<void> {
 public:
  KeychainResult() = default;
  KeychainResult(KeychainError error) : error_(std::move(error)) {}

  bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  const KeychainError& error() const { return *error_; }

 private:
  std::optional<KeychainError> error_;
};

}  // namespace tessard
