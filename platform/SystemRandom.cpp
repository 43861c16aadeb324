#include "platform/SystemRandom.h"

#include <cstdlib>

namespace tessard {

std::uint32_t SystemRandom::arc4random() {
  return ::arc4random();
}

}  // namespace tessard
