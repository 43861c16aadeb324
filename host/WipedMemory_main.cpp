// The whole program's memory, so that it can be wiped (see WipedMemory.h). The sanitizers have an operator
// delete of their own.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <malloc.h>
#include <string.h>

#include <cstdlib>
#include <new>

#include "host/WipedMemory.h"

void* operator new(std::size_t size) {
  while (true) {
    if (void* const memory = std::malloc(size > 0 ? size : 1)) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (!handler) throw std::bad_alloc();
    handler();
  }
}

void operator delete(void* memory) noexcept {
  if (memory && tessard::WipedMemory::isWanted()) explicit_bzero(memory, malloc_usable_size(memory));
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

#endif
