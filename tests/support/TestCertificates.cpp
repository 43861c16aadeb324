#include "tests/support/TestCertificates.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace tessard {

namespace {

template <class Answer>
Answer require(Answer answer, const char* what) {
  if (!answer) throw std::runtime_error(what);
  return answer;
}

template <class Thing>
std::string encoded(int (*encode)(const Thing*, unsigned char**), const Thing* thing) {
  unsigned char* bytes = nullptr;
  const int size = encode(thing, &bytes);
  require(size > 0, "encode");
  std::string result(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  OPENSSL_free(bytes);
  return result;
}

std::shared_ptr<X509> parsed(const std::string& der) {
  const auto* at = reinterpret_cast<const unsigned char*>(der.data());
  return {require(d2i_X509(nullptr, &at, static_cast<long>(der.size())), "d2i_X509"), X509_free};
}

template <class Write>
std::string written(Write write) {
  const std::shared_ptr<BIO> file(BIO_new(BIO_s_mem()), BIO_free_all);
  require(write(file.get()) == 1, "write");
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(file.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

void addAttribute(X509_NAME* name, const TestCertificate::Attribute& attribute) {
  const std::shared_ptr<ASN1_OBJECT> object(OBJ_txt2obj(attribute.oid.c_str(), 1), ASN1_OBJECT_free);
  const std::shared_ptr<X509_NAME_ENTRY> entry(X509_NAME_ENTRY_new(), X509_NAME_ENTRY_free);
  require(X509_NAME_ENTRY_set_object(entry.get(), object.get()), "set_object");
  require(X509_NAME_ENTRY_set_data(entry.get(), attribute.type,
                                   reinterpret_cast<const unsigned char*>(attribute.bytes.data()),
                                   static_cast<int>(attribute.bytes.size())),
          "set_data");
  require(X509_NAME_add_entry(name, entry.get(), -1, 0), "add_entry");
}

void addExtension(X509* certificate, int kind, const char* value) {
  const std::shared_ptr<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value),
                                                  X509_EXTENSION_free);
  require(X509_add_ext(certificate, extension.get(), -1), "add_ext");
}

}  // namespace

TestCertificate::TestCertificate(const Wishes& wishes) {
  key_ = wishes.sameKeyAs
             ? wishes.sameKeyAs->key_
             : std::shared_ptr<EVP_PKEY>(require(EVP_EC_gen("P-256"), "EVP_EC_gen"), EVP_PKEY_free);
  const std::shared_ptr<X509> certificate(X509_new(), X509_free);
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), wishes.serial);
  ASN1_TIME_set(X509_getm_notBefore(certificate.get()), wishes.notBefore);
  ASN1_TIME_set(X509_getm_notAfter(certificate.get()), wishes.notAfter);
  X509_set_pubkey(certificate.get(), key_.get());
  for (const Attribute& attribute : wishes.subject) {
    addAttribute(X509_get_subject_name(certificate.get()), attribute);
  }
  const auto issuer = wishes.issuer ? parsed(wishes.issuer->der_) : certificate;
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
  if (wishes.authority) addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  const TestCertificate* signer = wishes.signer ? wishes.signer : wishes.issuer;
  require(X509_sign(certificate.get(), signer ? signer->key_.get() : key_.get(), EVP_sha256()), "X509_sign");
  der_ = encoded<X509>(i2d_X509, certificate.get());
}

TestCertificate::Attribute TestCertificate::commonName(const std::string& name) {
  return {"2.5.4.3", V_ASN1_UTF8STRING, name};
}

TestCertificate::Attribute TestCertificate::topic(const std::string& topic) {
  return {"0.9.2342.19200300.100.1.1", V_ASN1_UTF8STRING, topic};
}

std::string TestCertificate::pemOf(const std::string& der) {
  return written([&](BIO* file) {
    return PEM_write_bio(file, PEM_STRING_X509, "", reinterpret_cast<const unsigned char*>(der.data()),
                         static_cast<long>(der.size())) > 0
               ? 1
               : 0;
  });
}

std::string TestCertificate::keyPem(const std::optional<std::string>& passPhrase, bool traditional) const {
  const EVP_CIPHER* cipher = passPhrase ? EVP_aes_256_cbc() : nullptr;
  const auto* phrase = passPhrase ? reinterpret_cast<const unsigned char*>(passPhrase->data()) : nullptr;
  const int length = passPhrase ? static_cast<int>(passPhrase->size()) : 0;
  return written([&](BIO* file) {
    return traditional ? PEM_write_bio_PrivateKey_traditional(file, key_.get(), cipher, phrase, length,
                                                              nullptr, nullptr)
                       : PEM_write_bio_PrivateKey(file, key_.get(), cipher, phrase, length, nullptr, nullptr);
  });
}

std::string TestCertificate::keyBytes() const {
  const std::shared_ptr<PKCS8_PRIV_KEY_INFO> info(EVP_PKEY2PKCS8(key_.get()), PKCS8_PRIV_KEY_INFO_free);
  return encoded<PKCS8_PRIV_KEY_INFO>(i2d_PKCS8_PRIV_KEY_INFO, info.get());
}

std::string TestCertificate::pkcs12(const std::string& passPhrase,
                                    const std::vector<const TestCertificate*>& others, bool withKey) const {
  const std::shared_ptr<STACK_OF(X509)> chain(
      sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); });
  for (const TestCertificate* other : others) {
    const auto certificate = parsed(other->der_);
    X509_up_ref(certificate.get());
    sk_X509_push(chain.get(), certificate.get());
  }
  const std::shared_ptr<PKCS12> file(
      require(PKCS12_create(passPhrase.c_str(), "name", withKey ? key_.get() : nullptr, parsed(der_).get(),
                            chain.get(), 0, 0, 2048, 2048, 0),
              "PKCS12_create"),
      PKCS12_free);
  return encoded<PKCS12>(i2d_PKCS12, file.get());
}

}  // namespace tessard
