#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/Keychain.h"

namespace tessard {

/// Records the operations of a keychain and makes chosen ones fail. An operation that is made to fail does
/// not reach the keychain behind. Operations go by the names of their members ("SecItemCopyMatching"); a name
/// that is none throws std::invalid_argument.
class FaultyKeychain : public Keychain {
 public:
  /// The keychain behind is borrowed.
  explicit FaultyKeychain(Keychain& behind) : behind_(behind) {}

  /// Every call of the operation fails with the status from now on. `SecIdentityCopyPreferred` then finds
  /// nothing, and the error of `SecCertificateCopyValues` has the text of the status.
  void fail(std::string_view operation, OSStatus status);
  /// Nothing is made to fail any longer.
  void heal() { faults_.clear(); }

  /// The names of all operations so far, failed ones included.
  std::vector<std::string> calls;
  /// What the last call of SecKeychainSetPreferenceDomain has chosen.
  SecPreferencesDomain domain = SecPreferencesDomain::user;

  void SecKeychainSetPreferenceDomain(SecPreferencesDomain chosen) override;
  KeychainAnswer<GenericPassword> SecKeychainFindGenericPassword(std::string_view account) override;
  OSStatus SecKeychainItemModifyContent(const KeychainItem& item, std::string_view data) override;
  KeychainAnswer<KeychainItem> SecKeychainItemCreateFromContent(const GenericPasswordAttributes& attributes,
                                                                std::string_view data,
                                                                const SecAccess& access) override;
  KeychainAnswer<KeychainCertificate> SecItemCopyMatching(std::string_view subjectContains) override;
  KeychainAnswer<KeychainIdentity> SecIdentityCreateWithCertificate(
      const KeychainCertificate& certificate) override;
  OSStatus SecIdentitySetPreferred(const std::optional<KeychainIdentity>& identity,
                                   std::string_view name) override;
  std::optional<KeychainIdentity> SecIdentityCopyPreferred(std::string_view name) override;
  KeychainAnswer<KeychainCertificate> SecIdentityCopyCertificate(const KeychainIdentity& identity) override;
  Result<Dictionary> SecCertificateCopyValues(const KeychainCertificate& certificate) override;

 private:
  /// Records the call; `errSecSuccess` when it is to be carried out.
  OSStatus faultOf(const char* operation);

  Keychain& behind_;
  std::map<std::string, OSStatus, std::less<>> faults_;
};

}  // namespace tessard
