#include "platform/certificates/CombinedPem.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "platform/keychain/OpenSsl.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

std::optional<Secret> combinedPem(const CertificateExamination& examination) {
  if (examination.chain.empty() || !examination.privateKey) return std::nullopt;
  const KeyPointer key = decodedKey(examination.privateKey->view());
  // OpenSSL wipes what such a file gives back of its memory.
  const BioPointer file(BIO_new(BIO_s_mem()));
  if (!key || !file) return std::nullopt;
  bool written = true;
  for (const Certificate& link : examination.chain) {
    written = PEM_write_bio_X509(file.get(), link.handle()) == 1 && written;
  }
  written =
      PEM_write_bio_PKCS8PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
      written;
  ERR_clear_error();
  if (!written) return std::nullopt;
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(file.get(), &bytes);
  return Secret(std::string_view(bytes, static_cast<std::size_t>(size)));
}

}  // namespace tessard
