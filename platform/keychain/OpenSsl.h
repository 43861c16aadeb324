#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <memory>
#include <string_view>

namespace tessard {

/// Frees what OpenSSL has made with the function that belongs to it.
template <auto freeing>
struct OpenSslFree {
  template <class Thing>
  void operator()(Thing* thing) const {
    freeing(thing);
  }
};

using BioPointer = std::unique_ptr<BIO, OpenSslFree<BIO_free_all>>;
using CipherContextPointer = std::unique_ptr<EVP_CIPHER_CTX, OpenSslFree<EVP_CIPHER_CTX_free>>;
using KeyPointer = std::unique_ptr<EVP_PKEY, OpenSslFree<EVP_PKEY_free>>;
using LibraryContextPointer = std::unique_ptr<OSSL_LIB_CTX, OpenSslFree<OSSL_LIB_CTX_free>>;
using Pkcs12Pointer = std::unique_ptr<PKCS12, OpenSslFree<PKCS12_free>>;
using ProviderPointer = std::unique_ptr<OSSL_PROVIDER, OpenSslFree<OSSL_PROVIDER_unload>>;
using X509Pointer = std::unique_ptr<X509, OpenSslFree<X509_free>>;
using X509SignaturePointer = std::unique_ptr<X509_SIG, OpenSslFree<X509_SIG_free>>;

inline const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Reads the bytes in place: they must outlive it.
inline BioPointer reading(std::string_view bytes) {
  return BioPointer(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

}  // namespace tessard
