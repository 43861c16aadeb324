#include "platform/keychain/PemFile.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstring>

#include "platform/keychain/KeyDerivation.h"

namespace tessard {

namespace {

// Called by OpenSSL for the pass phrase; never asks anybody.
int givePassPhrase(char* buffer, int size, int /*forWriting*/, void* context) {
  const auto* phrase = static_cast<const Secret*>(context);
  if (!phrase || phrase->size() > static_cast<std::size_t>(size)) return -1;
  if (phrase->size() > 0) std::memcpy(buffer, phrase->view().data(), phrase->size());
  return static_cast<int>(phrase->size());
}

constexpr const char* kSealedKey = "ENCRYPTED PRIVATE KEY";

X509SignaturePointer sealedKeyOf(const PemBlock& block) {
  const unsigned char* at = bytesOf(block.bytes.view());
  return X509SignaturePointer(d2i_X509_SIG(nullptr, &at, static_cast<long>(block.bytes.size())));
}

// Whether the pass phrase is all that stands between the block and the key.
bool isWellFormed(const PemBlock& block) {
  if (block.name != kSealedKey) return block.encrypted;
  return sealedKeyOf(block) != nullptr;
}

bool asksForTooMuch(const PemBlock& block) {
  const auto key = block.name == kSealedKey ? sealedKeyOf(block) : nullptr;
  return key && roundsOfKey(key.get()) > kMostRounds;
}

}  // namespace

std::optional<std::vector<PemBlock>> pemBlocks(std::string_view pem) {
  const BioPointer file = reading(pem);
  std::vector<PemBlock> blocks;
  ERR_clear_error();
  while (true) {
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* bytes = nullptr;
    long size = 0;
    if (PEM_read_bio(file.get(), &name, &header, &bytes, &size) != 1) break;
    // Both ways in which PEM says that a key is encrypted.
    const bool encrypted = std::strcmp(name, kSealedKey) == 0 || std::strstr(header, "ENCRYPTED");
    blocks.push_back(
        {name, encrypted,
         Secret(std::string_view(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)))});
    OPENSSL_free(name);
    OPENSSL_free(header);
    OPENSSL_clear_free(bytes, static_cast<std::size_t>(size));
  }
  const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  if (!atEnd) return std::nullopt;
  return blocks;
}

KeychainResult<KeyPointer> readPrivateKey(std::string_view pem, const Secret* passPhrase) {
  const KeychainError malformed{KeychainProblem::malformed, "The private key is malformed"};
  const auto blocks = pemBlocks(pem);
  if (!blocks) return malformed;
  const auto block = std::ranges::find_if(*blocks, &PemBlock::isPrivateKey);
  if (block == blocks->end()) return malformed;
  if (block->encrypted && !passPhrase) {
    return KeychainError{KeychainProblem::passPhraseNeeded,
                         "The private key is encrypted: its pass phrase is needed"};
  }
  if (asksForTooMuch(*block)) {
    return KeychainError{KeychainProblem::malformed, "The private key asks for too much work"};
  }
  const BioPointer file = reading(pem);
  KeyPointer key(
      PEM_read_bio_PrivateKey(file.get(), nullptr, givePassPhrase, const_cast<Secret*>(passPhrase)));
  ERR_clear_error();
  if (key) return key;
  if (!isWellFormed(*block)) return malformed;
  return KeychainError{KeychainProblem::wrongPassPhrase, "The pass phrase does not open the private key"};
}

std::optional<Secret> encodedKey(EVP_PKEY* key) {
  using Pkcs8Pointer = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpenSslFree<PKCS8_PRIV_KEY_INFO_free>>;
  const Pkcs8Pointer info(EVP_PKEY2PKCS8(key));
  unsigned char* encoded = nullptr;
  const int size = info ? i2d_PKCS8_PRIV_KEY_INFO(info.get(), &encoded) : -1;
  ERR_clear_error();
  if (size < 0) return std::nullopt;
  Secret bytes(std::string_view(reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)));
  OPENSSL_clear_free(encoded, static_cast<std::size_t>(size));
  return bytes;
}

KeyPointer decodedKey(std::string_view pkcs8) {
  const unsigned char* at = bytesOf(pkcs8);
  KeyPointer key(d2i_AutoPrivateKey(nullptr, &at, static_cast<long>(pkcs8.size())));
  ERR_clear_error();
  return key;
}

}  // namespace tessard
