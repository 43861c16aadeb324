#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "common/Result.h"

namespace tessard {

/// Asks saslauthd, which runs as root and knows the passwords of the machine's accounts.
class SaslauthdClient {
 public:
  /// `socket` is where saslauthd listens; `patience` how long one question may take in all.
  SaslauthdClient(std::string socket, std::chrono::milliseconds patience);

  /// Whether the password is the account's and the account is in use. Fails when saslauthd is not there, does
  /// not answer in time or answers what cannot be understood; nothing is remembered of it. Name and password
  /// are at most `kLongestCredential` bytes long.
  Result<bool> accepts(std::string_view name, std::string_view password) const;

 private:
  std::string socket_;
  std::chrono::milliseconds patience_;
};

}  // namespace tessard
