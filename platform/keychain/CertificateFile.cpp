#include "platform/keychain/CertificateFile.h"

#include <openssl/err.h>

#include <algorithm>

#include "common/Format.h"
#include "platform/keychain/PemFile.h"
#include "platform/keychain/Pkcs12File.h"

namespace tessard {

namespace {

KeychainError malformed(const char* what) {
  return {KeychainProblem::malformed, what};
}

bool add(std::vector<Certificate>& certificates, std::string_view der) {
  auto certificate = Certificate::parse(der);
  if (!certificate) return false;
  addUnlessThere(certificates, *std::move(certificate));
  return true;
}

KeychainResult<Pkcs12Content> readPem(std::string_view bytes, const Secret* passPhrase) {
  const auto blocks = pemBlocks(bytes);
  if (!blocks) return malformed("The PEM file is malformed");
  Pkcs12Content pieces;
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

KeychainResult<void> putKeysCertificateFirst(Pkcs12Content& pieces) {
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
