#pragma once

#include "common/Clock.h"

namespace tessard {

/// The machine's clocks. `now` reads CLOCK_REALTIME_COARSE, the clock that file times are taken from. The
/// monotonic clock stands still while the machine is suspended. A signal does not shorten a sleep.
class SystemClock : public Clock {
 public:
  FileTime now() override;
  double monotonicSeconds() override;
  void sleepMicroseconds(std::uint32_t microseconds) override;
};

}  // namespace tessard
