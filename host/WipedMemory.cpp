#include "host/WipedMemory.h"

#include <string.h>

#include <cstddef>

namespace tessard {

namespace {

thread_local int depth = 0;

// Deeper than the calls of a request go; what lies above them is in use.
constexpr std::size_t kStackBelow = std::size_t{64} * 1024;

[[gnu::noinline]] void wipeStackBelow() {
  char unused[kStackBelow];
  explicit_bzero(unused, sizeof unused);
}

}  // namespace

WipedMemory::WipedMemory() {
  ++depth;
}

WipedMemory::~WipedMemory() {
  if (--depth == 0) wipeStackBelow();
}

bool WipedMemory::isWanted() {
  return depth > 0;
}

}  // namespace tessard
