#pragma once

#include <cstdint>
#include <functional>
#include <numeric>
#include <vector>

#include "common/Clock.h"

namespace tessard {

/// A clock that stands still until it is set or slept on; sleeping takes no time. It starts at
/// 2026-11-21 02:00:27 UTC. Files that a test writes have the machine's time, not this one: give them a time
/// with `ScratchRoot::setModified`, or the clock the machine's with `setToMachine`.
class FakeClock : public Clock {
 public:
  FileTime time{1795226427, 0};
  double monotonic = 1000;
  /// The lengths of all sleeps, in microseconds.
  std::vector<std::uint32_t> sleeps;
  /// Called after each sleep; may change what the code waits for.
  std::function<void()> afterSleep;

  FileTime now() override { return time; }
  double monotonicSeconds() override { return monotonic; }
  void sleepMicroseconds(std::uint32_t microseconds) override;

  void advance(double seconds);
  void setToMachine();
  /// How long was slept in all, in seconds.
  double sleptSeconds() const { return std::accumulate(sleeps.begin(), sleeps.end(), 0.0) / 1e6; }
};

}  // namespace tessard
