#pragma once

#include <openssl/x509.h>

#include <cstdint>

namespace tessard {

/// What one file may ask for before anything in it can be decrypted, counted in rounds of a hash. Programs
/// that ask for much take 600,000 for each of the three parts of a PKCS#12 file; a core does a few million in
/// a second.
inline constexpr std::int64_t kMostRounds = 2'000'000;

/// The rounds that an algorithm of PKCS#5 or PKCS#12 makes of a pass phrase, for scrypt its blocks;
/// `kMostRounds` and more all count as more than may be. 0 when the algorithm cannot be read, which
/// decryption refuses anyway.
std::int64_t roundsOf(const X509_ALGOR* algorithm);

/// Of the "ENCRYPTED PRIVATE KEY" of a PEM file.
std::int64_t roundsOfKey(const X509_SIG* key);

}  // namespace tessard
