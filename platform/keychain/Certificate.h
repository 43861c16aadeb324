#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/keychain/OpenSsl.h"

namespace tessard {

/// The subject attribute that carries a push topic: the X.500 user ID.
inline constexpr const char* kTopicAttribute = "0.9.2342.19200300.100.1.1";

/// One X.509 certificate.
class Certificate {
 public:
  struct Attribute {
    std::string oid;                   ///< dotted
    std::optional<std::string> value;  ///< absent when `textOf` is
  };

  /// Of DER without bytes left over; absent when it is not that.
  static std::optional<Certificate> parse(std::string_view der);
  /// Absent when it cannot be written as DER that reads back.
  static std::optional<Certificate> copyOf(const X509* certificate);

  const std::string& der() const { return der_; }
  /// For what this class does not tell; it stays this object's.
  X509* handle() const { return certificate_.get(); }

  /// The subject's attributes in the order of the certificate.
  std::vector<Attribute> subjectAttributes() const;
  /// The value of the first topic attribute; absent when there is none or it has no text.
  std::optional<std::string> topic() const;
  /// Whether one of the subject's values contains the text, upper and lower case of ASCII letters alike.
  bool subjectContains(std::string_view text) const;

  /// "UID = com.example.topic, CN = Name", for people.
  std::string subject() const;
  std::string issuer() const;
  std::string serial() const;  ///< hexadecimal digits, in capitals
  std::string sha256() const;  ///< of the whole certificate: 64 hexadecimal digits, in capitals
  /// Seconds since 1970; 0 for a time that cannot be read.
  std::int64_t notBefore() const;
  std::int64_t notAfter() const;

  /// 32 bytes that name its public key.
  std::string publicKeyDigest() const;
  bool belongsTo(EVP_PKEY* privateKey) const;
  bool isSelfSigned() const;

  /// Whether it names this certificate as its issuer.
  bool namesAsIssuer(const Certificate& issuer) const;
  /// Whether it was signed by this certificate, and that one may sign certificates.
  bool isSignedBy(const Certificate& issuer) const;

 private:
  Certificate(X509Pointer certificate, std::string_view der)
      : certificate_(std::move(certificate)), der_(der) {}

  X509Pointer certificate_;
  std::string der_;
};

/// Adds a certificate at the end unless the same one is there.
void addUnlessThere(std::vector<Certificate>& certificates, Certificate certificate);

}  // namespace tessard
