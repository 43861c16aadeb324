#pragma once

#include <cstdint>

namespace tessard {

/// Random numbers fit for secrets.
class Random {
 public:
  virtual ~Random() = default;

  /// 32 random bits.
  virtual std::uint32_t arc4random() = 0;
};

}  // namespace tessard
