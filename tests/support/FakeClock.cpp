#include "tests/support/FakeClock.h"

#include <cmath>
#include <ctime>

namespace tessard {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

}  // namespace

void FakeClock::sleepMicroseconds(std::uint32_t microseconds) {
  sleeps.push_back(microseconds);
  advance(microseconds / 1e6);
  if (afterSleep) afterSleep();
}

void FakeClock::advance(double seconds) {
  monotonic += seconds;
  const std::int64_t nanoseconds = time.nanoseconds + std::llround(seconds * 1e9);
  time.seconds += nanoseconds / kNanosecondsPerSecond;
  time.nanoseconds = nanoseconds % kNanosecondsPerSecond;
  if (time.nanoseconds < 0) {
    time.nanoseconds += kNanosecondsPerSecond;
    --time.seconds;
  }
}

void FakeClock::setToMachine() {
  timespec machine{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &machine);
  time = {machine.tv_sec, machine.tv_nsec};
}

}  // namespace tessard
