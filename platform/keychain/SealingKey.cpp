#include "platform/keychain/SealingKey.h"

#include <openssl/rand.h>

#include "platform/keychain/OpenSsl.h"

namespace tessard {

namespace {

// A sealed value is this byte, the nonce, the content and the tag. 12 and 16 bytes are what GCM is made for
// (NIST SP 800-38D, 8.2).
constexpr char kForm = 1;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kHeadSize = 1 + kNonceSize;

unsigned char* writable(char* bytes) {
  return reinterpret_cast<unsigned char*>(bytes);
}

}  // namespace

std::optional<std::string> SealingKey::seal(std::string_view content, std::string_view place) const {
  std::string sealed(kHeadSize + content.size() + kTagSize, '\0');
  sealed[0] = kForm;
  unsigned char* const nonce = writable(sealed.data()) + 1;
  unsigned char* const out = nonce + kNonceSize;
  const CipherContextPointer context(EVP_CIPHER_CTX_new());
  int length = 0;
  const bool done =
      context && RAND_bytes(nonce, kNonceSize) == 1 &&
      EVP_EncryptInit_ex2(context.get(), EVP_aes_256_gcm(), bytesOf(bytes_.view()), nonce, nullptr) == 1 &&
      EVP_EncryptUpdate(context.get(), nullptr, &length, bytesOf(place), static_cast<int>(place.size())) ==
          1 &&
      EVP_EncryptUpdate(context.get(), out, &length, bytesOf(content), static_cast<int>(content.size())) ==
          1 &&
      EVP_EncryptFinal_ex(context.get(), out + length, &length) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagSize, out + content.size()) == 1;
  if (!done) return std::nullopt;
  return sealed;
}

std::optional<Secret> SealingKey::open(std::string_view sealed, std::string_view place) const {
  if (sealed.size() < kHeadSize + kTagSize || sealed[0] != kForm) return std::nullopt;
  const std::string_view nonce = sealed.substr(1, kNonceSize);
  const std::string_view content = sealed.substr(kHeadSize, sealed.size() - kHeadSize - kTagSize);
  std::string tag(sealed.substr(sealed.size() - kTagSize));
  Secret opened(content.size());
  // Some place to write to even when there is nothing to be written.
  unsigned char spare[1];
  unsigned char* const out = opened.size() == 0 ? spare : writable(opened.data());
  const CipherContextPointer context(EVP_CIPHER_CTX_new());
  int length = 0;
  const bool done = context &&
                    EVP_DecryptInit_ex2(context.get(), EVP_aes_256_gcm(), bytesOf(bytes_.view()),
                                        bytesOf(nonce), nullptr) == 1 &&
                    EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(place),
                                      static_cast<int>(place.size())) == 1 &&
                    EVP_DecryptUpdate(context.get(), out, &length, bytesOf(content),
                                      static_cast<int>(content.size())) == 1 &&
                    EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag.data()) == 1 &&
                    EVP_DecryptFinal_ex(context.get(), out + length, &length) == 1;
  if (!done) return std::nullopt;
  return opened;
}

std::string sealingPlace(std::initializer_list<std::string_view> parts) {
  std::string place;
  for (const std::string_view part : parts) {
    place += std::to_string(part.size());
    place += ':';
    place += part;
  }
  return place;
}

}  // namespace tessard
