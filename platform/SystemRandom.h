#pragma once

#include "common/Random.h"

namespace tessard {

/// The kernel's random numbers, through the C library's generator. It is never short of entropy once the
/// machine has booted.
class SystemRandom : public Random {
 public:
  std::uint32_t arc4random() override;
  std::optional<std::string> readDevRandom(std::size_t count) override;
};

}  // namespace tessard
