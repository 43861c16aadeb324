#include "platform/keychain/Certificate.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "common/Text.h"
#include "platform/keychain/CertificateText.h"

namespace tessard {

namespace {

using SerialPointer = std::unique_ptr<BIGNUM, OpenSslFree<BN_free>>;

std::string hexOf(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  for (const char byte : bytes) {
    text += digits[static_cast<unsigned char>(byte) >> 4U];
    text += digits[static_cast<unsigned char>(byte) & 0xfU];
  }
  return text;
}

std::string sha256Of(std::string_view bytes) {
  std::string digest(32, '\0');
  EVP_Q_digest(nullptr, "SHA256", nullptr, bytes.data(), bytes.size(),
               reinterpret_cast<unsigned char*>(digest.data()), nullptr);
  return digest;
}

std::string dotted(const ASN1_OBJECT* object) {
  std::string text(static_cast<std::size_t>(std::max(OBJ_obj2txt(nullptr, 0, object, 1), 0)), '\0');
  OBJ_obj2txt(text.data(), static_cast<int>(text.size() + 1), object, 1);
  return text;
}

std::string shortName(const ASN1_OBJECT* object) {
  const int known = OBJ_obj2nid(object);
  return known == NID_undef ? dotted(object) : OBJ_nid2sn(known);
}

// What separates attributes would be misread in a value.
std::string escaped(std::string_view value) {
  std::string text;
  for (const char character : value) {
    if (std::string_view(",+=\\\"").find(character) != std::string_view::npos) text += '\\';
    text += character;
  }
  return text;
}

std::string readable(const X509_NAME* name) {
  std::string text;
  for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, index);
    const auto value = textOf(X509_NAME_ENTRY_get_data(entry));
    if (!text.empty()) text += ", ";
    text += shortName(X509_NAME_ENTRY_get_object(entry)) + " = " + (value ? escaped(*value) : "(unreadable)");
  }
  return text;
}

std::int64_t secondsOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return 0;
  return ::timegm(&parts);
}

bool sameLetter(char one, char other) {
  return asciiLowercase(one) == asciiLowercase(other);
}

}  // namespace

std::optional<Certificate> Certificate::parse(std::string_view der) {
  const unsigned char* at = bytesOf(der);
  X509Pointer parsed(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
  ERR_clear_error();
  if (!parsed || at != bytesOf(der) + der.size()) return std::nullopt;
  return Certificate(std::move(parsed), der);
}

std::optional<Certificate> Certificate::copyOf(const X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificate, &der);
  if (size < 0) return std::nullopt;
  auto copy = parse({reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)});
  OPENSSL_free(der);
  return copy;
}

std::vector<Certificate::Attribute> Certificate::subjectAttributes() const {
  std::vector<Attribute> attributes;
  const X509_NAME* name = X509_get_subject_name(certificate_.get());
  for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, index);
    attributes.push_back(
        {dotted(X509_NAME_ENTRY_get_object(entry)), textOf(X509_NAME_ENTRY_get_data(entry))});
  }
  return attributes;
}

std::optional<std::string> Certificate::topic() const {
  for (Attribute& attribute : subjectAttributes()) {
    if (attribute.oid == kTopicAttribute) return std::move(attribute.value);
  }
  return std::nullopt;
}

bool Certificate::subjectContains(std::string_view text) const {
  return std::ranges::any_of(subjectAttributes(), [&](const Attribute& attribute) {
    return attribute.value && std::search(attribute.value->begin(), attribute.value->end(), text.begin(),
                                          text.end(), sameLetter) != attribute.value->end();
  });
}

std::string Certificate::subject() const {
  return readable(X509_get_subject_name(certificate_.get()));
}

std::string Certificate::issuer() const {
  return readable(X509_get_issuer_name(certificate_.get()));
}

std::string Certificate::serial() const {
  const SerialPointer number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate_.get()), nullptr));
  if (!number) return "";
  std::string bytes(static_cast<std::size_t>(BN_num_bytes(number.get())), '\0');
  BN_bn2bin(number.get(), reinterpret_cast<unsigned char*>(bytes.data()));
  return (BN_is_negative(number.get()) ? "-" : "") + (bytes.empty() ? "00" : hexOf(bytes));
}

std::string Certificate::sha256() const {
  return hexOf(sha256Of(der_));
}

std::int64_t Certificate::notBefore() const {
  return secondsOf(X509_get0_notBefore(certificate_.get()));
}

std::int64_t Certificate::notAfter() const {
  return secondsOf(X509_get0_notAfter(certificate_.get()));
}

std::string Certificate::publicKeyDigest() const {
  unsigned char* encoded = nullptr;
  const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate_.get()), &encoded);
  if (size < 0) return "";
  std::string digest = sha256Of({reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)});
  OPENSSL_free(encoded);
  return digest;
}

bool Certificate::belongsTo(EVP_PKEY* privateKey) const {
  const bool belongs = X509_check_private_key(certificate_.get(), privateKey) == 1;
  ERR_clear_error();
  return belongs;
}

bool Certificate::isSelfSigned() const {
  return namesAsIssuer(*this);
}

bool Certificate::namesAsIssuer(const Certificate& issuer) const {
  return X509_NAME_cmp(X509_get_issuer_name(certificate_.get()),
                       X509_get_subject_name(issuer.certificate_.get())) == 0;
}

bool Certificate::isSignedBy(const Certificate& issuer) const {
  const bool isSigned = X509_check_issued(issuer.certificate_.get(), certificate_.get()) == X509_V_OK &&
                        X509_check_ca(issuer.certificate_.get()) != 0 &&
                        X509_verify(certificate_.get(), X509_get0_pubkey(issuer.certificate_.get())) == 1;
  ERR_clear_error();
  return isSigned;
}

void addUnlessThere(std::vector<Certificate>& certificates, Certificate certificate) {
  const bool known = std::ranges::any_of(
      certificates, [&](const Certificate& other) { return other.der() == certificate.der(); });
  if (!known) certificates.push_back(std::move(certificate));
}

}  // namespace tessard
