#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tessard {

/// Random numbers fit for secrets.
class Random {
 public:
  virtual ~Random() = default;

  /// 32 random bits.
  virtual std::uint32_t arc4random() = 0;

  /// So many bytes from "/dev/random"; absent when the device cannot be opened or read.
  virtual std::optional<std::string> readDevRandom(std::size_t count) = 0;
};

}  // namespace tessard
