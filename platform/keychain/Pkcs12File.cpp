#include "platform/keychain/Pkcs12File.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/keychain/KeyDerivation.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

namespace {

KeychainError malformed(const char* what) {
  return {KeychainProblem::malformed, what};
}

// Ciphers that OpenSSL has no other provider for than "legacy".
bool isOld(const X509_ALGOR* algorithm) {
  constexpr std::array kOld = {NID_pbe_WithSHA1And128BitRC4,     NID_pbe_WithSHA1And40BitRC4,
                               NID_pbe_WithSHA1And128BitRC2_CBC, NID_pbe_WithSHA1And40BitRC2_CBC,
                               NID_pbeWithMD5AndDES_CBC,         NID_pbeWithSHA1AndRC2_CBC};
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  return std::ranges::find(kOld, OBJ_obj2nid(object)) != kOld.end();
}

// Files of older programs are sealed with ciphers that OpenSSL keeps in a provider of their own; without it
// only newer files can be read. The context does not unload what was loaded into it.
struct OldCiphers {
  LibraryContextPointer context{OSSL_LIB_CTX_new()};
  ProviderPointer present{context ? OSSL_PROVIDER_load(context.get(), "default") : nullptr};
  ProviderPointer old{context ? OSSL_PROVIDER_load(context.get(), "legacy") : nullptr};
};

// Counts the work that a PKCS#12 file asks for, and looks at its ciphers on the way. A hostile one could ask
// for two thousand million rounds, time and again.
class WorkCount {
 public:
  explicit WorkCount(const PKCS12* file) {
    const ASN1_INTEGER* rounds = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &rounds, file);
    std::int64_t count = 1;
    if (rounds && ASN1_INTEGER_get_int64(&count, rounds) != 1) count = kMostRounds + 1;
    add(count);
  }

  bool tooMuch() const { return rounds_ > kMostRounds; }
  bool oldCiphers() const { return oldCiphers_; }

  /// Goes through all that is in the file, and opens what must be opened for that as long as it is not too
  /// much.
  void addContent(PKCS12* file, const char* phrase) {
    const Safes safes(PKCS12_unpack_authsafes(file));
    for (int index = 0; safes && index < sk_PKCS7_num(safes.get()) && !tooMuch(); ++index) {
      PKCS7* const safe = sk_PKCS7_value(safes.get(), index);
      const bool sealed = PKCS7_type_is_encrypted(safe) && safe->d.encrypted;
      if (sealed) add(safe->d.encrypted->enc_data->algorithm);
      if (tooMuch()) return;
      const Bags bags(sealed ? PKCS12_unpack_p7encdata(safe, phrase, -1) : PKCS12_unpack_p7data(safe));
      addBags(bags.get());
    }
  }

 private:
  struct FreeSafes {
    void operator()(STACK_OF(PKCS7) * safes) const { sk_PKCS7_pop_free(safes, PKCS7_free); }
  };
  struct FreeBags {
    void operator()(STACK_OF(PKCS12_SAFEBAG) * bags) const {
      sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    }
  };
  using Safes = std::unique_ptr<STACK_OF(PKCS7), FreeSafes>;
  using Bags = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), FreeBags>;

  void add(std::int64_t rounds) { rounds_ += std::clamp<std::int64_t>(rounds, 0, kMostRounds + 1); }

  void add(const X509_ALGOR* algorithm) {
    add(roundsOf(algorithm));
    oldCiphers_ = oldCiphers_ || isOld(algorithm);
  }

  void addKey(const X509_SIG* key) {
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(key, &algorithm, nullptr);
    add(algorithm);
  }

  void addBags(const STACK_OF(PKCS12_SAFEBAG) * bags) {
    for (int index = 0; bags && index < sk_PKCS12_SAFEBAG_num(bags) && !tooMuch(); ++index) {
      const PKCS12_SAFEBAG* const bag = sk_PKCS12_SAFEBAG_value(bags, index);
      const int kind = PKCS12_SAFEBAG_get_nid(bag);
      if (kind == NID_pkcs8ShroudedKeyBag) addKey(PKCS12_SAFEBAG_get0_pkcs8(bag));
      if (kind == NID_safeContentsBag) addBags(PKCS12_SAFEBAG_get0_safes(bag));
    }
  }

  std::int64_t rounds_ = 0;
  bool oldCiphers_ = false;
};

struct FreeCertificates {
  void operator()(STACK_OF(X509) * certificates) const { sk_X509_pop_free(certificates, X509_free); }
};
using CertificatesPointer = std::unique_ptr<STACK_OF(X509), FreeCertificates>;

bool add(std::vector<Certificate>& certificates, const X509* certificate) {
  auto copy = Certificate::copyOf(certificate);
  if (!copy) return false;
  addUnlessThere(certificates, *std::move(copy));
  return true;
}

// Absent when the pass phrase is not the one of the file.
std::optional<const char*> phraseThatFits(PKCS12* file, const Secret* passPhrase) {
  if (PKCS12_mac_present(file) != 1) return passPhrase ? passPhrase->text() : "";
  // Without one some programs write no pass phrase, and others an empty one.
  if (!passPhrase || passPhrase->size() == 0) {
    if (PKCS12_verify_mac(file, nullptr, 0) == 1) return nullptr;
    if (PKCS12_verify_mac(file, "", 0) == 1) return "";
    return std::nullopt;
  }
  const bool fits = PKCS12_verify_mac(file, passPhrase->text(), static_cast<int>(passPhrase->size())) == 1;
  return fits ? std::optional(passPhrase->text()) : std::nullopt;
}

KeychainResult<Pkcs12Content> takeApart(PKCS12* file, const char* phrase) {
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  const bool parsed = PKCS12_parse(file, phrase, &key, &certificate, &others) == 1;
  ERR_clear_error();
  const KeyPointer keptKey(key);
  const X509Pointer keptCertificate(certificate);
  const CertificatesPointer keptOthers(others);
  if (!parsed) return malformed("The PKCS#12 file is malformed, or uses a cipher that is not known");
  Pkcs12Content pieces;
  bool added = !certificate || add(pieces.certificates, certificate);
  for (int index = 0; others && index < sk_X509_num(others); ++index) {
    added = add(pieces.certificates, sk_X509_value(others, index)) && added;
  }
  if (!added) return malformed("The file holds a certificate that is malformed, or has a malformed name");
  if (key) {
    // From here on it has nothing to do with the context of old ciphers.
    const auto encoded = encodedKey(key);
    if (encoded) pieces.key = decodedKey(encoded->view());
    if (!pieces.key) return malformed("The private key is malformed");
  }
  return pieces;
}

}  // namespace

KeychainResult<Pkcs12Content> readPkcs12(std::string_view bytes, const Secret* passPhrase) {
  const OldCiphers ciphers;
  PKCS12* file = ciphers.context ? PKCS12_init_ex(NID_pkcs7_data, ciphers.context.get(), nullptr) : nullptr;
  const unsigned char* at = bytesOf(bytes);
  // When it fails, OpenSSL frees the one that it was given.
  const Pkcs12Pointer parsed(file ? d2i_PKCS12(&file, &at, static_cast<long>(bytes.size())) : nullptr);
  ERR_clear_error();
  if (!parsed || at != bytesOf(bytes) + bytes.size()) {
    return malformed("The file is neither PEM nor PKCS#12");
  }
  const auto tooMuchWork = malformed("The PKCS#12 file asks for too much work");
  WorkCount work(parsed.get());
  if (work.tooMuch()) return tooMuchWork;
  const auto phrase = phraseThatFits(parsed.get(), passPhrase);
  ERR_clear_error();
  if (!phrase && !passPhrase) {
    return KeychainError{KeychainProblem::passPhraseNeeded,
                         "The PKCS#12 file is encrypted: its pass phrase is needed"};
  }
  if (!phrase) {
    return KeychainError{KeychainProblem::wrongPassPhrase, "The pass phrase does not open the PKCS#12 file"};
  }
  work.addContent(parsed.get(), *phrase);
  ERR_clear_error();
  if (work.tooMuch()) return tooMuchWork;
  if (work.oldCiphers() && !ciphers.old) {
    return KeychainError{KeychainProblem::oldCiphers,
                         "The PKCS#12 file is encrypted with RC2, RC4 or DES, which OpenSSL 3 has in its "
                         "provider \"legacy\" alone, and that cannot be loaded here"};
  }
  auto content = takeApart(parsed.get(), *phrase);
  if (content) content.value().oldCiphers = work.oldCiphers();
  return content;
}

}  // namespace tessard
