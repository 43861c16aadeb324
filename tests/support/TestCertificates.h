#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessard {

/// A certificate with its private key, made for one test.
class TestCertificate {
 public:
  /// One attribute of a subject; the bytes stand in the certificate as they are, whatever the type asks for.
  struct Attribute {
    std::string oid;
    int type;  ///< an ASN.1 tag number, such as V_ASN1_UTF8STRING
    std::string bytes;
  };
  /// An extension as OpenSSL's configuration writes it: "subjectAltName" and "DNS:example.org".
  struct Extension {
    std::string name;
    std::string value;
  };
  struct Wishes {
    std::vector<Attribute> subject;
    const TestCertificate* issuer = nullptr;  ///< none: signed by itself
    const TestCertificate* signer = nullptr;  ///< whose key signs; none: the issuer's
    const TestCertificate* sameKeyAs = nullptr;
    bool authority = false;
    std::int64_t notBefore = 1'700'000'000;  ///< seconds since 1970
    std::int64_t notAfter = 4'000'000'000;
    long serial = 1;
    std::string key = "EC P-256";  ///< or another curve, "RSA 2048", "DSA 2048", "ED25519"
    std::string digest = "SHA256";
    std::vector<Extension> extensions{};
  };

  explicit TestCertificate(const Wishes& wishes);
  /// With the one attribute CN.
  explicit TestCertificate(const std::string& name) : TestCertificate(Wishes{{commonName(name)}}) {}

  static Attribute commonName(const std::string& name);
  static Attribute topic(const std::string& topic);

  const std::string& der() const { return der_; }
  std::string pem() const { return pemOf(der_); }
  /// Any bytes as if they were a certificate.
  static std::string pemOf(const std::string& der);
  /// The private key in PEM, encrypted when there is a pass phrase; `traditional` in the older of the two
  /// forms.
  std::string keyPem(const std::optional<std::string>& passPhrase = {}, bool traditional = false) const;
  /// The private key in PKCS#8, encrypted, in DER.
  std::string sealedKeyBytes(const std::string& passPhrase) const;
  /// The private key as it stands in a keychain.
  std::string keyBytes() const;
  /// PKCS#12 with certificate, key and the certificates of the others.
  std::string pkcs12(const std::string& passPhrase, const std::vector<const TestCertificate*>& others = {},
                     bool withKey = true) const;
  /// The same with certificate and key alone, sealed as older programs do: with RC2.
  std::string oldPkcs12(const std::string& passPhrase) const;
  /// PKCS#7 with these certificates.
  static std::string pkcs7(const std::vector<const TestCertificate*>& certificates);

 private:
  std::shared_ptr<EVP_PKEY> key_;
  std::string der_;
};

}  // namespace tessard
