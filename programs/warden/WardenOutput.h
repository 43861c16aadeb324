#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/keychain/KeychainManager.h"

namespace tessard {

/// What the keychain holds, without any secret.
struct WardenListing {
  std::vector<CertificateRecord> certificates;
  std::vector<std::string> passPhraseFiles;
  std::vector<std::string> passwordAccounts;
};

/// Where keywarden writes. Data goes to standard output, everything else to standard error; with `json`
/// answers and errors are one JSON document on standard output. Nothing is written that a terminal would
/// obey.
class WardenOutput {
 public:
  explicit WardenOutput(bool json);

  void listing(const WardenListing& listing) const;
  void imported(const ImportReport& report) const;
  /// A certificate with what has been done about it, such as "deleted".
  void done(const std::string& what, const CertificateRecord& certificate) const;
  /// The same for anything else.
  void done(const std::string& what, const std::string& thing) const;
  /// The end of a failed call. Gives the exit code back.
  int failure(std::string_view id, const std::string& text, int exitCode) const;
  int failure(const KeychainError& error) const;

  /// False when standard output could not take everything.
  bool finish() const;

 private:
  void table(const std::vector<CertificateRecord>& certificates) const;
  void warning(const std::string& text) const;

  bool json_;
  bool colourOut_;
  bool colourErr_;
};

}  // namespace tessard
