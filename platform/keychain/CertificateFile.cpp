#include "platform/keychain/CertificateFile.h"

#include <openssl/err.h>

#include <algorithm>

#include "common/Format.h"
#include "platform/keychain/KeyDerivation.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

namespace {

// The pieces of a file as they were found.
struct Pieces {
  std::vector<Certificate> certificates;
  KeyPointer key;
};

KeychainError malformed(const char* what) {
  return {KeychainProblem::malformed, what};
}

bool add(std::vector<Certificate>& certificates, std::string_view der) {
  auto certificate = Certificate::parse(der);
  if (!certificate) return false;
  const bool known = std::ranges::any_of(
      certificates, [&](const Certificate& other) { return other.der() == certificate->der(); });
  if (!known) certificates.push_back(*std::move(certificate));
  return true;
}

KeychainResult<Pieces> readPem(std::string_view bytes, const Secret* passPhrase) {
  const auto blocks = pemBlocks(bytes);
  if (!blocks) return malformed("The PEM file is malformed");
  Pieces pieces;
  for (const PemBlock& block : *blocks) {
    if (block.isCertificate() && !add(pieces.certificates, block.bytes.view())) {
      return malformed("The file holds a certificate that is malformed, or has a malformed name");
    }
  }
  const auto keys = std::ranges::count_if(*blocks, &PemBlock::isPrivateKey);
  if (keys > 1) return malformed("The file holds more than one private key");
  if (keys == 1) {
    auto key = readPrivateKey(bytes, passPhrase);
    if (!key) return key.error();
    pieces.key = std::move(key).value();
  }
  return pieces;
}

// Files of older programs are sealed with ciphers that OpenSSL keeps in a provider of their own; without it
// only newer files can be read. The context does not unload what was loaded into it.
struct OldCiphers {
  LibraryContextPointer context{OSSL_LIB_CTX_new()};
  ProviderPointer present{context ? OSSL_PROVIDER_load(context.get(), "default") : nullptr};
  ProviderPointer old{context ? OSSL_PROVIDER_load(context.get(), "legacy") : nullptr};
};

// Counts the work that a PKCS#12 file asks for. A hostile one could ask for two thousand million rounds, time
// and again.
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

  /// Goes through all that is in the file, and opens what must be opened for that as long as it is not too
  /// much.
  void addContent(PKCS12* file, const char* phrase) {
    const Safes safes(PKCS12_unpack_authsafes(file));
    for (int index = 0; safes && index < sk_PKCS7_num(safes.get()) && !tooMuch(); ++index) {
      PKCS7* const safe = sk_PKCS7_value(safes.get(), index);
      const bool sealed = PKCS7_type_is_encrypted(safe) && safe->d.encrypted;
      if (sealed) add(roundsOf(safe->d.encrypted->enc_data->algorithm));
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

  void addBags(const STACK_OF(PKCS12_SAFEBAG) * bags) {
    for (int index = 0; bags && index < sk_PKCS12_SAFEBAG_num(bags) && !tooMuch(); ++index) {
      const PKCS12_SAFEBAG* const bag = sk_PKCS12_SAFEBAG_value(bags, index);
      const int kind = PKCS12_SAFEBAG_get_nid(bag);
      if (kind == NID_pkcs8ShroudedKeyBag) add(roundsOfKey(PKCS12_SAFEBAG_get0_pkcs8(bag)));
      if (kind == NID_safeContentsBag) addBags(PKCS12_SAFEBAG_get0_safes(bag));
    }
  }

  std::int64_t rounds_ = 0;
};

struct FreeCertificates {
  void operator()(STACK_OF(X509) * certificates) const { sk_X509_pop_free(certificates, X509_free); }
};
using CertificatesPointer = std::unique_ptr<STACK_OF(X509), FreeCertificates>;

bool add(std::vector<Certificate>& certificates, X509* certificate) {
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificate, &der);
  if (size < 0) return false;
  const bool added =
      add(certificates, std::string_view(reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)));
  OPENSSL_free(der);
  return added;
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

KeychainResult<Pieces> takeApart(PKCS12* file, const char* phrase) {
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  const bool parsed = PKCS12_parse(file, phrase, &key, &certificate, &others) == 1;
  ERR_clear_error();
  const KeyPointer keptKey(key);
  const X509Pointer keptCertificate(certificate);
  const CertificatesPointer keptOthers(others);
  if (!parsed) return malformed("The PKCS#12 file is malformed, or uses a cipher that is not known");
  Pieces pieces;
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

KeychainResult<Pieces> readPkcs12(std::string_view bytes, const Secret* passPhrase) {
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
  return takeApart(parsed.get(), *phrase);
}

KeychainResult<void> putKeysCertificateFirst(Pieces& pieces) {
  if (!pieces.key) return {};
  const auto own = std::ranges::find_if(pieces.certificates, [&](const Certificate& certificate) {
    return certificate.belongsTo(pieces.key.get());
  });
  if (own == pieces.certificates.end()) {
    return KeychainError{KeychainProblem::keyMismatch,
                         "The private key does not belong to a certificate of the file"};
  }
  std::rotate(pieces.certificates.begin(), own, own + 1);
  return {};
}

KeychainResult<void> checkChain(const std::vector<Certificate>& certificates) {
  std::vector<const Certificate*> chain = {&certificates.front()};
  std::vector<const Certificate*> others;
  for (std::size_t index = 1; index < certificates.size(); ++index) others.push_back(&certificates[index]);
  for (std::size_t index = 0; index < chain.size(); ++index) {
    const auto rest = std::stable_partition(others.begin(), others.end(), [&](const Certificate* other) {
      return !chain[index]->isSignedBy(*other);
    });
    chain.insert(chain.end(), rest, others.end());
    others.erase(rest, others.end());
  }
  if (others.empty()) return {};
  const Certificate& stray = *others.front();
  const auto named =
      std::ranges::find_if(chain, [&](const Certificate* link) { return link->namesAsIssuer(stray); });
  return KeychainError{
      KeychainProblem::brokenChain,
      named == chain.end()
          ? fill("The certificate of \"%@\" has not issued any other one of the file", {stray.subject()})
          : fill("The certificate of \"%@\" was not signed by that of \"%@\", which it names as its issuer",
                 {(*named)->subject(), stray.subject()})};
}

}  // namespace

KeychainResult<CertificateFile> readCertificateFile(std::string_view bytes, const Secret* passPhrase) {
  if (bytes.size() > CertificateFile::kSizeLimit) {
    return KeychainError{KeychainProblem::tooLarge, "The file is larger than 1 MiB"};
  }
  const bool isPem = bytes.find("-----BEGIN ") != std::string_view::npos;
  auto pieces = isPem ? readPem(bytes, passPhrase) : readPkcs12(bytes, passPhrase);
  if (!pieces) return pieces.error();
  if (pieces.value().certificates.empty()) {
    return KeychainError{KeychainProblem::noCertificate, "The file holds no certificate"};
  }
  if (auto sorted = putKeysCertificateFirst(pieces.value()); !sorted) return sorted.error();
  if (auto chained = checkChain(pieces.value().certificates); !chained) return chained.error();
  CertificateFile file{std::move(pieces.value().certificates), std::nullopt};
  if (pieces.value().key) {
    file.privateKey = encodedKey(pieces.value().key.get());
    if (!file.privateKey) return malformed("The private key is malformed");
  }
  return file;
}

}  // namespace tessard
