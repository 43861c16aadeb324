#include "tests/support/FaultyKeychain.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace tessard {

namespace {

constexpr std::array<std::string_view, 9> kOperations = {
    "SecKeychainFindGenericPassword",   "SecKeychainItemModifyContent",
    "SecKeychainItemCreateFromContent", "SecItemCopyMatching",
    "SecIdentitySetPreferred",          "SecIdentityCopyPreferred",
    "SecIdentityCreateWithCertificate", "SecIdentityCopyCertificate",
    "SecCertificateCopyValues",
};

}  // namespace

void FaultyKeychain::fail(std::string_view operation, OSStatus status) {
  if (std::ranges::find(kOperations, operation) == kOperations.end()) {
    throw std::invalid_argument(std::string(operation));
  }
  faults_[std::string(operation)] = status;
}

OSStatus FaultyKeychain::faultOf(const char* operation) {
  calls.emplace_back(operation);
  const auto fault = faults_.find(operation);
  return fault == faults_.end() ? errSecSuccess : fault->second;
}

void FaultyKeychain::SecKeychainSetPreferenceDomain(SecPreferencesDomain chosen) {
  calls.emplace_back("SecKeychainSetPreferenceDomain");
  domain = chosen;
  behind_.SecKeychainSetPreferenceDomain(chosen);
}

KeychainAnswer<GenericPassword> FaultyKeychain::SecKeychainFindGenericPassword(std::string_view account) {
  if (const OSStatus fault = faultOf("SecKeychainFindGenericPassword")) return {fault};
  return behind_.SecKeychainFindGenericPassword(account);
}

OSStatus FaultyKeychain::SecKeychainItemModifyContent(const KeychainItem& item, std::string_view data) {
  if (const OSStatus fault = faultOf("SecKeychainItemModifyContent")) return fault;
  return behind_.SecKeychainItemModifyContent(item, data);
}

KeychainAnswer<KeychainItem> FaultyKeychain::SecKeychainItemCreateFromContent(
    const GenericPasswordAttributes& attributes, std::string_view data, const SecAccess& access) {
  if (const OSStatus fault = faultOf("SecKeychainItemCreateFromContent")) return {fault};
  return behind_.SecKeychainItemCreateFromContent(attributes, data, access);
}

KeychainAnswer<KeychainCertificate> FaultyKeychain::SecItemCopyMatching(std::string_view subjectContains) {
  if (const OSStatus fault = faultOf("SecItemCopyMatching")) return {fault};
  return behind_.SecItemCopyMatching(subjectContains);
}

KeychainAnswer<KeychainIdentity> FaultyKeychain::SecIdentityCreateWithCertificate(
    const KeychainCertificate& certificate) {
  if (const OSStatus fault = faultOf("SecIdentityCreateWithCertificate")) return {fault};
  return behind_.SecIdentityCreateWithCertificate(certificate);
}

OSStatus FaultyKeychain::SecIdentitySetPreferred(const std::optional<KeychainIdentity>& identity,
                                                 std::string_view name) {
  if (const OSStatus fault = faultOf("SecIdentitySetPreferred")) return fault;
  return behind_.SecIdentitySetPreferred(identity, name);
}

std::optional<KeychainIdentity> FaultyKeychain::SecIdentityCopyPreferred(std::string_view name) {
  if (faultOf("SecIdentityCopyPreferred")) return std::nullopt;
  return behind_.SecIdentityCopyPreferred(name);
}

KeychainAnswer<KeychainCertificate> FaultyKeychain::SecIdentityCopyCertificate(
    const KeychainIdentity& identity) {
  if (const OSStatus fault = faultOf("SecIdentityCopyCertificate")) return {fault};
  return behind_.SecIdentityCopyCertificate(identity);
}

Result<Dictionary> FaultyKeychain::SecCertificateCopyValues(const KeychainCertificate& certificate) {
  if (const OSStatus fault = faultOf("SecCertificateCopyValues")) {
    return SystemError(0, keychainStatusText(fault));
  }
  return behind_.SecCertificateCopyValues(certificate);
}

}  // namespace tessard
