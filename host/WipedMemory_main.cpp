// The whole program's memory, so that it can be wiped (see WipedMemory.h). The sanitizers have an operator
// delete of their own.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <malloc.h>
#include <openssl/crypto.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "host/WipedMemory.h"

namespace {

void giveBack(void* memory) {
  if (memory && tessard::WipedMemory::isWanted()) explicit_bzero(memory, malloc_usable_size(memory));
  std::free(memory);
}

// OpenSSL has memory of its own, and wipes of it what it takes for a secret itself; keys on their way in are
// more than that.
void* allocateForOpenSsl(std::size_t size, const char* /*file*/, int /*line*/) {
  return std::malloc(size);
}

void giveBackOfOpenSsl(void* memory, const char* /*file*/, int /*line*/) {
  giveBack(memory);
}

void* resizeForOpenSsl(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
  if (!tessard::WipedMemory::isWanted() || !memory) return std::realloc(memory, size);
  void* const larger = size > 0 ? std::malloc(size) : nullptr;
  if (size > 0 && !larger) return nullptr;
  if (larger)
    std::copy_n(static_cast<char*>(memory), std::min(size, malloc_usable_size(memory)),
                static_cast<char*>(larger));
  giveBack(memory);
  return larger;
}

// Before anything asks OpenSSL for memory; afterwards it takes no others.
[[maybe_unused]] const int openSslIsWiped =
    CRYPTO_set_mem_functions(allocateForOpenSsl, resizeForOpenSsl, giveBackOfOpenSsl);

}  // namespace

void* operator new(std::size_t size) {
  while (true) {
    if (void* const memory = std::malloc(size > 0 ? size : 1)) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (!handler) throw std::bad_alloc();
    handler();
  }
}

void operator delete(void* memory) noexcept {
  giveBack(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

#endif
