// What libFuzzer calls, for the one target that TESSARD_FUZZ_TARGET names.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    tessard::fuzz::TESSARD_FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
  } catch (const tessard::BrokenPromise& broken) {
    static_cast<void>(std::fprintf(stderr, "broken promise: %s\n", broken.what()));
    std::abort();
  }
  return 0;
}
