#include "platform/certificates/CertificateStrength.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace tessard {

namespace {

EVP_PKEY* keyIn(const Certificate& certificate) {
  EVP_PKEY* const key = X509_get0_pubkey(certificate.handle());
  ERR_clear_error();
  return key;
}

std::string curveOf(const EVP_PKEY* key) {
  std::array<char, 80> name{};
  std::size_t length = 0;
  if (EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) != 1) return "";
  const char* const nist = EC_curve_nid2nist(OBJ_txt2nid(name.data()));
  return nist ? nist : name.data();
}

bool allows(const Certificate& certificate, int purpose) {
  const bool allowed = X509_check_purpose(certificate.handle(), purpose, 0) == 1;
  ERR_clear_error();
  return allowed;
}

}  // namespace

std::string keyOf(const Certificate& certificate) {
  const EVP_PKEY* const key = keyIn(certificate);
  if (!key) return "unknown";
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return "RSA " + std::to_string(EVP_PKEY_get_bits(key));
    case EVP_PKEY_RSA_PSS:
      return "RSA-PSS " + std::to_string(EVP_PKEY_get_bits(key));
    case EVP_PKEY_EC:
      return "EC " + curveOf(key);
    case EVP_PKEY_ED25519:
      return "Ed25519";
    case EVP_PKEY_ED448:
      return "Ed448";
    default:
      return std::string(OBJ_nid2sn(EVP_PKEY_get_base_id(key))) + " " +
             std::to_string(EVP_PKEY_get_bits(key));
  }
}

std::string signatureOf(const Certificate& certificate) {
  return OBJ_nid2sn(X509_get_signature_nid(certificate.handle()));
}

bool hasWeakKey(const Certificate& certificate) {
  const EVP_PKEY* const key = keyIn(certificate);
  return !key || EVP_PKEY_get_security_bits(key) < kLeastSecurityBits;
}

bool hasWeakSignature(const Certificate& certificate) {
  if (certificate.isSelfSigned()) return false;
  int bits = 0;
  const int known = X509_get_signature_info(certificate.handle(), nullptr, nullptr, &bits, nullptr);
  ERR_clear_error();
  return known != 1 || bits < kLeastSecurityBits;
}

KeyUse useOfKey(const Certificate& certificate) {
  constexpr std::array<std::string_view, 3> kCurves = {"P-256", "P-384", "P-521"};
  const EVP_PKEY* const key = keyIn(certificate);
  switch (key ? EVP_PKEY_get_base_id(key) : EVP_PKEY_NONE) {
    case EVP_PKEY_RSA:
      return KeyUse::common;
    case EVP_PKEY_EC:
      return std::ranges::find(kCurves, curveOf(key)) == kCurves.end() ? KeyUse::rare : KeyUse::common;
    case EVP_PKEY_RSA_PSS:
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
      return KeyUse::rare;
    default:
      return KeyUse::unsuitable;
  }
}

bool isAuthority(const Certificate& certificate) {
  const bool says = X509_check_ca(certificate.handle()) == 1;
  ERR_clear_error();
  return says;
}

bool isForServers(const Certificate& certificate) {
  return allows(certificate, X509_PURPOSE_SSL_SERVER);
}

bool isForClients(const Certificate& certificate) {
  return allows(certificate, X509_PURPOSE_SSL_CLIENT);
}

}  // namespace tessard
