#include "tests/support/TestCertificates.h"

#include <openssl/dsa.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
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

void addExtension(X509* certificate, const TestCertificate::Extension& wanted) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, nullptr, certificate, nullptr, nullptr, 0);
  const std::shared_ptr<X509_EXTENSION> extension(
      require(X509V3_EXT_conf(nullptr, &context, wanted.name.c_str(), wanted.value.c_str()), "EXT_conf"),
      X509_EXTENSION_free);
  X509_add_ext(certificate, extension.get(), -1);
}

EVP_PKEY* dsaKey(int bits) {
  const std::shared_ptr<EVP_PKEY_CTX> numbers(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr),
                                              EVP_PKEY_CTX_free);
  EVP_PKEY* parameters = nullptr;
  EVP_PKEY_paramgen_init(numbers.get());
  EVP_PKEY_CTX_set_dsa_paramgen_bits(numbers.get(), bits);
  require(EVP_PKEY_paramgen(numbers.get(), &parameters) == 1, "paramgen");
  const std::shared_ptr<EVP_PKEY> kept(parameters, EVP_PKEY_free);
  const std::shared_ptr<EVP_PKEY_CTX> making(EVP_PKEY_CTX_new_from_pkey(nullptr, parameters, nullptr),
                                             EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  EVP_PKEY_keygen_init(making.get());
  EVP_PKEY_keygen(making.get(), &key);
  return key;
}

std::shared_ptr<EVP_PKEY> madeKey(const std::string& kind) {
  const std::string number = kind.substr(kind.find(' ') + 1);
  EVP_PKEY* key = nullptr;
  if (kind.starts_with("RSA ")) {
    key = EVP_RSA_gen(std::stoul(number));
  } else if (kind.starts_with("EC ")) {
    key = EVP_EC_gen(number.c_str());
  } else if (kind.starts_with("DSA ")) {
    key = dsaKey(std::stoi(number));
  } else {
    key = EVP_PKEY_Q_keygen(nullptr, nullptr, kind.c_str());
  }
  return {require(key, "make a key"), EVP_PKEY_free};
}

}  // namespace

TestCertificate::TestCertificate(const Wishes& wishes) {
  key_ = wishes.sameKeyAs ? wishes.sameKeyAs->key_ : madeKey(wishes.key);
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
  for (const Extension& extension : wishes.extensions) addExtension(certificate.get(), extension);
  const TestCertificate* signer = wishes.signer ? wishes.signer : wishes.issuer;
  EVP_PKEY* const signing = signer ? signer->key_.get() : key_.get();
  // Keys of Edwards curves bring their own digest.
  const bool ownDigest = EVP_PKEY_get_base_id(signing) == EVP_PKEY_ED25519;
  const EVP_MD* const digest = ownDigest ? nullptr : EVP_get_digestbyname(wishes.digest.c_str());
  require(X509_sign(certificate.get(), signing, digest), "X509_sign");
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

std::string TestCertificate::sealedKeyBytes(const std::string& passPhrase) const {
  return written([&](BIO* file) {
    return i2d_PKCS8PrivateKey_bio(file, key_.get(), EVP_aes_256_cbc(), passPhrase.data(),
                                   static_cast<int>(passPhrase.size()), nullptr, nullptr);
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

std::string TestCertificate::oldPkcs12(const std::string& passPhrase) const {
  const std::shared_ptr<OSSL_LIB_CTX> context(OSSL_LIB_CTX_new(), OSSL_LIB_CTX_free);
  std::vector<std::shared_ptr<OSSL_PROVIDER>> providers;
  for (const char* provider : {"default", "legacy"}) {
    providers.emplace_back(require(OSSL_PROVIDER_load(context.get(), provider), provider),
                           OSSL_PROVIDER_unload);
  }
  const std::shared_ptr<PKCS12> file(
      require(PKCS12_create_ex(passPhrase.c_str(), "name", key_.get(), parsed(der_).get(), nullptr,
                               NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And40BitRC2_CBC, 2048,
                               2048, 0, context.get(), nullptr),
              "PKCS12_create_ex"),
      PKCS12_free);
  return encoded<PKCS12>(i2d_PKCS12, file.get());
}

std::string TestCertificate::pkcs7(const std::vector<const TestCertificate*>& certificates) {
  const std::shared_ptr<PKCS7> file(PKCS7_new(), PKCS7_free);
  PKCS7_set_type(file.get(), NID_pkcs7_signed);
  PKCS7_content_new(file.get(), NID_pkcs7_data);
  for (const TestCertificate* certificate : certificates) {
    require(PKCS7_add_certificate(file.get(), parsed(certificate->der_).get()) == 1, "add_certificate");
  }
  return encoded<PKCS7>(i2d_PKCS7, file.get());
}

}  // namespace tessard
