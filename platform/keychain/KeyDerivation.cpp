#include "platform/keychain/KeyDerivation.h"

#include <openssl/asn1t.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <algorithm>
#include <memory>

#include "platform/keychain/OpenSsl.h"

namespace tessard {

namespace {

constexpr std::int64_t kTooMany = kMostRounds + 1;

template <class Parameters>
struct FreeParameters {
  const ASN1_ITEM* item;
  void operator()(Parameters* parameters) const {
    ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(parameters), item);
  }
};

// The parameters of an algorithm, null when they are of another kind.
template <class Parameters>
std::unique_ptr<Parameters, FreeParameters<Parameters>> parametersOf(const X509_ALGOR* algorithm,
                                                                     const ASN1_ITEM* item) {
  const ASN1_OBJECT* object = nullptr;
  const void* value = nullptr;
  int type = 0;
  X509_ALGOR_get0(&object, &type, &value, algorithm);
  void* parsed = nullptr;
  if (type == V_ASN1_SEQUENCE) parsed = ASN1_item_unpack(static_cast<const ASN1_STRING*>(value), item);
  ERR_clear_error();
  return {static_cast<Parameters*>(parsed), FreeParameters<Parameters>{item}};
}

int nameOf(const X509_ALGOR* algorithm) {
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  return OBJ_obj2nid(object);
}

// Numbers that no decryption takes count as 0, and large ones as too many, so that they can be multiplied.
std::int64_t numberOf(const ASN1_INTEGER* integer) {
  std::int64_t number = 0;
  if (!integer || ASN1_INTEGER_get_int64(&number, integer) != 1) return kTooMany;
  return std::clamp<std::int64_t>(number, 0, kTooMany);
}

std::int64_t product(std::int64_t first, std::int64_t second) {
  return std::min(first * second, kTooMany);
}

std::int64_t scryptRounds(const X509_ALGOR* function) {
  const auto scrypt = parametersOf<SCRYPT_PARAMS>(function, ASN1_ITEM_rptr(SCRYPT_PARAMS));
  if (!scrypt) return 0;
  return product(product(numberOf(scrypt->costParameter), numberOf(scrypt->blockSize)),
                 numberOf(scrypt->parallelizationParameter));
}

}  // namespace

std::int64_t roundsOf(const X509_ALGOR* algorithm) {
  if (nameOf(algorithm) != NID_pbes2) {
    const auto old = parametersOf<PBEPARAM>(algorithm, ASN1_ITEM_rptr(PBEPARAM));
    return old ? numberOf(old->iter) : 0;
  }
  const auto both = parametersOf<PBE2PARAM>(algorithm, ASN1_ITEM_rptr(PBE2PARAM));
  if (!both) return 0;
  if (nameOf(both->keyfunc) == NID_id_scrypt) return scryptRounds(both->keyfunc);
  const auto function = parametersOf<PBKDF2PARAM>(both->keyfunc, ASN1_ITEM_rptr(PBKDF2PARAM));
  return function ? numberOf(function->iter) : 0;
}

std::int64_t roundsOfKey(const X509_SIG* key) {
  const X509_ALGOR* algorithm = nullptr;
  X509_SIG_get0(key, &algorithm, nullptr);
  return roundsOf(algorithm);
}

}  // namespace tessard
