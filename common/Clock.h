#pragma once

#include <cstdint>

#include "common/FileSystem.h"

namespace tessard {

/// Time and waiting. Tests replace it, so that no test waits.
class Clock {
 public:
  virtual ~Clock() = default;

  /// The real-time clock at the granularity of file times, so that it can be compared with them.
  virtual FileTime now() = 0;

  /// Seconds on a clock that is never set.
  virtual double monotonicSeconds() = 0;

  /// Pauses the calling thread.
  virtual void sleepMicroseconds(std::uint32_t microseconds) = 0;
};

}  // namespace tessard
