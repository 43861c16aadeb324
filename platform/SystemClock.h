#pragma once

#include "common/Clock.h"

namespace tessard {

/// The machine's clocks. `now` reads CLOCK_REALTIME_COARSE: no file that is written after the call has an
/// earlier time, as it would with a finer clock. (Kernels from 6.13 on may give a file a time up to a tick
/// ahead of this clock.) The monotonic clock stands still while the machine is suspended. A signal does not
/// shorten a sleep.
class SystemClock : public Clock {
 public:
  FileTime now() override;
  double monotonicSeconds() override;
  void sleepMicroseconds(std::uint32_t microseconds) override;
};

}  // namespace tessard
