#pragma once

#include "common/Random.h"

namespace tessard {

/// The kernel's random numbers, through the C library's generator. It is never short of entropy once the
/// machine has booted and never fails.
class SystemRandom : public Random {
 public:
  std::uint32_t arc4random() override;
};

}  // namespace tessard
