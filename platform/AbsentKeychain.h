#pragma once

#include "common/Keychain.h"

namespace tessard {

/// A machine without a keychain: nothing is found and nothing can be kept.
class AbsentKeychain : public Keychain {
 public:
  void SecKeychainSetPreferenceDomain(SecPreferencesDomain /*domain*/) override {}
  KeychainAnswer<GenericPassword> SecKeychainFindGenericPassword(std::string_view /*account*/) override {
    return {errSecNotAvailable};
  }
  OSStatus SecKeychainItemModifyContent(const KeychainItem& /*item*/, std::string_view /*data*/) override {
    return errSecNotAvailable;
  }
  KeychainAnswer<KeychainItem> SecKeychainItemCreateFromContent(
      const GenericPasswordAttributes& /*attributes*/, std::string_view /*data*/,
      const SecAccess& /*access*/) override {
    return {errSecNotAvailable};
  }
  KeychainAnswer<KeychainCertificate> SecItemCopyMatching(std::string_view /*subjectContains*/) override {
    return {errSecNotAvailable};
  }
  KeychainAnswer<KeychainIdentity> SecIdentityCreateWithCertificate(
      const KeychainCertificate& /*certificate*/) override {
    return {errSecNotAvailable};
  }
  OSStatus SecIdentitySetPreferred(const std::optional<KeychainIdentity>& /*identity*/,
                                   std::string_view /*name*/) override {
    return errSecNotAvailable;
  }
  std::optional<KeychainIdentity> SecIdentityCopyPreferred(std::string_view /*name*/) override { return {}; }
  KeychainAnswer<KeychainCertificate> SecIdentityCopyCertificate(
      const KeychainIdentity& /*identity*/) override {
    return {errSecNotAvailable};
  }
  Result<Dictionary> SecCertificateCopyValues(const KeychainCertificate& /*certificate*/) override {
    return SystemError(0, keychainStatusText(errSecNotAvailable));
  }
};

}  // namespace tessard
