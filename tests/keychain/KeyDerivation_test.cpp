#include "platform/keychain/KeyDerivation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <memory>

#include "platform/keychain/CertificateFile.h"
#include "platform/keychain/KeychainManager.h"
#include "platform/keychain/OpenSsl.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

using testing::HasSubstr;

using AlgorithmPointer = std::unique_ptr<X509_ALGOR, OpenSslFree<X509_ALGOR_free>>;

constexpr int kHostile = 0x7fffffff;
unsigned char salt[16] = {1, 2, 3};

AlgorithmPointer pbkdf2(int rounds) {
  return AlgorithmPointer(PKCS5_pbe2_set_iv(EVP_aes_128_cbc(), rounds, salt, sizeof salt, salt, -1));
}
AlgorithmPointer oldWay(int rounds) {
  return AlgorithmPointer(PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, rounds, salt, sizeof salt));
}
// As much memory as OpenSSL allows, over and over.
AlgorithmPointer scrypt(std::uint64_t times) {
  return AlgorithmPointer(PKCS5_pbe2_set_scrypt(EVP_aes_128_cbc(), salt, sizeof salt, salt, 16384, 1, times));
}

X509SignaturePointer sealedKey(const X509_ALGOR* algorithm) {
  X509SignaturePointer key(X509_SIG_new());
  X509_ALGOR* place = nullptr;
  ASN1_OCTET_STRING* bytes = nullptr;
  X509_SIG_getm(key.get(), &place, &bytes);
  EXPECT_EQ(X509_ALGOR_copy(place, algorithm), 1);
  EXPECT_EQ(ASN1_OCTET_STRING_set(bytes, salt, sizeof salt), 1);
  return key;
}

std::string pemOf(X509_SIG* key) {
  const BioPointer memory(BIO_new(BIO_s_mem()));
  EXPECT_EQ(PEM_write_bio_PKCS8(memory.get(), key), 1);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

// A bag with a sealed key, in a safe of its own.
PKCS7* safeWithKey(const X509_ALGOR* algorithm, bool sealed) {
  STACK_OF(PKCS12_SAFEBAG)* const bags = sk_PKCS12_SAFEBAG_new_null();
  sk_PKCS12_SAFEBAG_push(bags, PKCS12_SAFEBAG_create0_pkcs8(sealedKey(algorithm).release()));
  PKCS7* const safe = sealed ? PKCS12_pack_p7encdata(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, "word", -1, salt,
                                                     sizeof salt, 1, bags)
                             : PKCS12_pack_p7data(bags);
  sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
  return safe;
}

std::string fileWith(PKCS7* safe, int roundsOfMac = 0) {
  STACK_OF(PKCS7)* const safes = sk_PKCS7_new_null();
  sk_PKCS7_push(safes, safe);
  const Pkcs12Pointer file(PKCS12_add_safes(safes, 0));
  sk_PKCS7_pop_free(safes, PKCS7_free);
  if (roundsOfMac > 0) {
    EXPECT_EQ(PKCS12_set_mac(file.get(), "word", -1, salt, sizeof salt, 2, EVP_sha1()), 1);
    const ASN1_INTEGER* rounds = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &rounds, file.get());
    EXPECT_EQ(ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(rounds), roundsOfMac), 1);
  }
  unsigned char* der = nullptr;
  const int size = i2d_PKCS12(file.get(), &der);
  std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return bytes;
}

// What is said of a file that is opened with the pass phrase "word".
std::string refusal(const std::string& file) {
  const Secret phrase("word");
  const auto read = readCertificateFile(file, &phrase);
  return read ? "accepted" : read.error().text;
}

TEST(KeyDerivation, CountsTheRoundsOfEveryKindOfPassPhrase) {
  EXPECT_EQ(roundsOf(pbkdf2(2048).get()), 2048);
  EXPECT_EQ(roundsOf(oldWay(2048).get()), 2048);
  EXPECT_EQ(roundsOf(scrypt(3).get()), 3 * 16384);
  EXPECT_GT(roundsOf(pbkdf2(kHostile).get()), kMostRounds);
  EXPECT_GT(roundsOf(oldWay(kHostile).get()), kMostRounds);
  EXPECT_GT(roundsOf(scrypt(200000).get()), kMostRounds);
  EXPECT_EQ(roundsOfKey(sealedKey(pbkdf2(7).get()).get()), 7);
  const AlgorithmPointer none(X509_ALGOR_new());
  EXPECT_EQ(roundsOf(none.get()), 0);
}

TEST(KeyDerivation, AKeyThatAsksForTooMuchIsRefusedAtOnce) {
  const TestCertificate made("a");
  const AlgorithmPointer hostile[] = {pbkdf2(kHostile), oldWay(kHostile), scrypt(200000)};
  for (const AlgorithmPointer& algorithm : hostile) {
    const std::string key = pemOf(sealedKey(algorithm.get()).get());
    EXPECT_EQ(refusal(made.pem() + key), "The private key asks for too much work");
    EXPECT_THAT(checkPassPhrase(key, Secret("word")).error().text, HasSubstr("asks for too much work"));
  }
  EXPECT_THAT(refusal(made.pem() + pemOf(sealedKey(pbkdf2(100).get()).get())), HasSubstr("does not open"));
}

TEST(KeyDerivation, APkcs12FileThatAsksForTooMuchAnywhereIsRefusedAtOnce) {
  const std::string reason = "The PKCS#12 file asks for too much work";
  for (const bool sealed : {false, true}) {
    EXPECT_EQ(refusal(fileWith(safeWithKey(pbkdf2(kHostile).get(), sealed))), reason);
    EXPECT_EQ(refusal(fileWith(safeWithKey(scrypt(200000).get(), sealed))), reason);
  }
  PKCS7* const safe = safeWithKey(pbkdf2(1).get(), true);
  EXPECT_EQ(X509_ALGOR_copy(safe->d.encrypted->enc_data->algorithm, oldWay(kHostile).get()), 1);
  EXPECT_EQ(refusal(fileWith(safe)), reason);
  EXPECT_EQ(refusal(fileWith(safeWithKey(pbkdf2(1).get(), false), kHostile)), reason);
  EXPECT_EQ(refusal(fileWith(safeWithKey(pbkdf2(1).get(), false))),
            "The PKCS#12 file is malformed, or uses a cipher that is not known");
  EXPECT_EQ(refusal(TestCertificate("a").pkcs12("word")), "accepted");
}

}  // namespace
}  // namespace tessard
