#include "platform/certificates/CertificateMaterial.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>

#include <algorithm>

#include "common/Format.h"
#include "platform/keychain/KeyDerivation.h"
#include "platform/keychain/PemFile.h"
#include "platform/keychain/Pkcs12File.h"

namespace tessard {

namespace {

using Pkcs7Pointer = std::unique_ptr<PKCS7, OpenSslFree<PKCS7_free>>;
using Pkcs8Pointer = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpenSslFree<PKCS8_PRIV_KEY_INFO_free>>;

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kEnd = "-----END ";
// What some editors put before a text; OpenSSL looks for the first block behind it in vain.
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

constexpr std::string_view kCertificateFile = "The certificate file";
constexpr std::string_view kChainFile = "The chain file";
constexpr std::string_view kKeyFile = "The key file";

// The text of each block with a private key.
std::vector<std::string_view> keyBlocks(std::string_view pem) {
  std::vector<std::string_view> blocks;
  for (std::size_t begin = pem.find(kBegin); begin != std::string_view::npos;
       begin = pem.find(kBegin, begin + kBegin.size())) {
    const std::string_view rest = pem.substr(begin);
    const std::size_t end = rest.find(kEnd);
    if (end == std::string_view::npos) break;
    if (rest.substr(0, rest.find('\n')).find("PRIVATE KEY-----") == std::string_view::npos) continue;
    blocks.push_back(rest.substr(0, rest.find('\n', end)));
  }
  return blocks;
}

class Reader {
 public:
  explicit Reader(const Secret* passPhrase) : passPhrase_(passPhrase) {}

  void read(std::string_view bytes, std::string_view what) {
    if (bytes.empty()) return;
    what_ = what;
    if (bytes.size() > CertificateMaterial::kSizeLimit) {
      content_.isWhole = content_.isWhole && what_ == kKeyFile;
      tell("too-large", "%@ is larger than 1 MiB.", "Give the files that the authority has issued.");
    } else if (bytes.find(kBegin) != std::string_view::npos) {
      readPem(bytes);
    } else if (!readDerCertificate(bytes) && !readDerKey(bytes) && !readPkcs7(derPkcs7(bytes).get())) {
      readPkcs12File(bytes);
    }
  }

  CertificateContent finish() {
    if (repeated_) {
      content_.findings.push_back({"repeated-certificate", FindingSeverity::note,
                                   "A certificate is in the files more than once.",
                                   "Nothing needs to be done: it is used once."});
    }
    const bool readable = std::ranges::none_of(content_.findings, &CertificateFinding::isError);
    if (readable && content_.certificates.empty()) tellNoCertificate();
    if (readable && !content_.key) {
      content_.findings.push_back({"no-key", FindingSeverity::error,
                                   "There is no private key with the certificate.",
                                   "Give the key that the certificate was requested with."});
    }
    return std::move(content_);
  }

 private:
  void tell(const char* id, const char* sentence, const char* remedy) {
    content_.findings.push_back({id, FindingSeverity::error, fill(sentence, {what_}), remedy});
  }

  // Nothing, or not all, of a file is known.
  void tellUnread(const KeychainError& error) {
    content_.isWhole = content_.isWhole && what_ == kKeyFile;
    tell(error);
  }

  void tellMalformed() {
    content_.isWhole = content_.isWhole && what_ == kKeyFile;
    tell("malformed", "%@ cannot be read: it is malformed, or neither PEM nor DER, PKCS#12 or PKCS#7.",
         "Look whether the file is whole, and export it again otherwise.");
  }

  void tell(const KeychainError& error) {
    switch (error.problem) {
      case KeychainProblem::passPhraseNeeded:
        return tell("pass-phrase-needed", "%@ is encrypted, and there is no pass phrase.",
                    "Give its pass phrase.");
      case KeychainProblem::wrongPassPhrase:
        return tell("wrong-pass-phrase", "The pass phrase does not open what is encrypted in %@.",
                    "Give the pass phrase that the file was made with.");
      case KeychainProblem::oldCiphers:
        return tell("legacy-provider-missing",
                    "%@ is encrypted with RC2, RC4 or DES, which OpenSSL 3 has in its provider \"legacy\" "
                    "alone, and that cannot be loaded here.",
                    "Convert it where it was made, with \"openssl pkcs12 -legacy -nodes\", or install "
                    "OpenSSL's legacy provider (ossl-modules/legacy.so).");
      default:
        return tellMalformed();
    }
  }

  void add(Certificate certificate) {
    const std::size_t before = content_.certificates.size();
    addUnlessThere(content_.certificates, std::move(certificate));
    repeated_ = repeated_ || content_.certificates.size() == before;
  }

  void add(KeyPointer key) {
    if (!content_.key) {
      content_.key = std::move(key);
    } else if (EVP_PKEY_eq(content_.key.get(), key.get()) != 1 && !several_) {
      several_ = true;
      tell("several-keys", "%@ brings a second private key.",
           "Give the one key that belongs to the certificate.");
    }
    ERR_clear_error();
  }

  void readPem(std::string_view bytes) {
    if (bytes.starts_with(kByteOrderMark)) bytes.remove_prefix(kByteOrderMark.size());
    const auto blocks = pemBlocks(bytes);
    if (!blocks) return tellMalformed();
    for (const PemBlock& block : *blocks) {
      if (block.name.ends_with("CERTIFICATE REQUEST")) request_ = true;
      if (block.name == PEM_STRING_PKCS7 && !readPkcs7(derPkcs7(block.bytes.view()).get())) {
        return tellMalformed();
      }
      if (!block.isCertificate()) continue;
      auto certificate = Certificate::parse(block.bytes.view());
      if (!certificate) return tellMalformed();
      add(*std::move(certificate));
    }
    for (const std::string_view block : keyBlocks(bytes)) {
      auto key = readPrivateKey(block, passPhrase_);
      if (!key) return tell(key.error());
      add(std::move(key).value());
    }
  }

  bool readDerCertificate(std::string_view bytes) {
    auto certificate = Certificate::parse(bytes);
    if (!certificate) return false;
    add(*std::move(certificate));
    return true;
  }

  bool readDerKey(std::string_view bytes) {
    if (auto key = decodedKey(bytes)) {
      add(std::move(key));
      return true;
    }
    const unsigned char* at = bytesOf(bytes);
    const X509SignaturePointer sealed(d2i_X509_SIG(nullptr, &at, static_cast<long>(bytes.size())));
    ERR_clear_error();
    if (!sealed || at != bytesOf(bytes) + bytes.size()) return false;
    openSealedKey(sealed.get());
    return true;
  }

  void openSealedKey(const X509_SIG* sealed) {
    if (!passPhrase_) return tell(KeychainError{KeychainProblem::passPhraseNeeded, ""});
    if (roundsOfKey(sealed) > kMostRounds) return tellMalformed();
    const Pkcs8Pointer opened(
        PKCS8_decrypt(sealed, passPhrase_->text(), static_cast<int>(passPhrase_->size())));
    KeyPointer key(opened ? EVP_PKCS82PKEY(opened.get()) : nullptr);
    ERR_clear_error();
    if (!key) return tell(KeychainError{KeychainProblem::wrongPassPhrase, ""});
    add(std::move(key));
  }

  static Pkcs7Pointer derPkcs7(std::string_view bytes) {
    const unsigned char* at = bytesOf(bytes);
    Pkcs7Pointer file(d2i_PKCS7(nullptr, &at, static_cast<long>(bytes.size())));
    ERR_clear_error();
    return file;
  }

  bool readPkcs7(const PKCS7* file) {
    if (!file || !PKCS7_type_is_signed(file) || !file->d.sign) return false;
    content_.ordered = false;
    const STACK_OF(X509)* const certificates = file->d.sign->cert;
    for (int index = 0; certificates && index < sk_X509_num(certificates); ++index) {
      auto copy = Certificate::copyOf(sk_X509_value(certificates, index));
      if (!copy) return false;
      add(*std::move(copy));
    }
    return true;
  }

  void readPkcs12File(std::string_view bytes) {
    auto file = readPkcs12(bytes, passPhrase_);
    if (!file) return tellUnread(file.error());
    content_.ordered = false;
    for (Certificate& certificate : file.value().certificates) add(std::move(certificate));
    if (file.value().key) add(std::move(file.value().key));
    if (!file.value().oldCiphers) return;
    content_.findings.push_back(
        {"old-ciphers", FindingSeverity::note,
         fill("%@ is encrypted with RC2, RC4 or DES, which protect it badly and which OpenSSL 3 opens with "
              "its "
              "provider \"legacy\" alone.",
              {what_}),
         "Nothing needs to be done for the service; keep the file where nobody else can read it."});
  }

  void tellNoCertificate() {
    content_.findings.push_back({"no-certificate", FindingSeverity::error,
                                 request_ ? "The files hold a request for a certificate, and no certificate."
                                          : "The files hold no certificate.",
                                 request_ ? "Send the request to an authority, and give what it issues."
                                          : "Give the file that the authority has issued."});
  }

  const Secret* passPhrase_;
  std::string_view what_;
  CertificateContent content_;
  bool repeated_ = false;
  bool several_ = false;
  bool request_ = false;
};

}  // namespace

const char* wordFor(FindingSeverity severity) {
  switch (severity) {
    case FindingSeverity::note:
      return "note";
    case FindingSeverity::warning:
      return "warning";
    case FindingSeverity::error:
      break;
  }
  return "error";
}

CertificateContent readMaterial(const CertificateMaterial& material) {
  Reader reader(material.passPhrase);
  reader.read(material.certificate, kCertificateFile);
  reader.read(material.chain, kChainFile);
  reader.read(material.key, kKeyFile);
  return reader.finish();
}

}  // namespace tessard
