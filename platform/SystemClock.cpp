#include "platform/SystemClock.h"

#include <cerrno>
#include <ctime>

namespace tessard {

namespace {

constexpr long kNanosecondsPerSecond = 1'000'000'000;

timespec read(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return time;
}

}  // namespace

FileTime SystemClock::now() {
  const timespec time = read(CLOCK_REALTIME_COARSE);
  return {time.tv_sec, time.tv_nsec};
}

double SystemClock::monotonicSeconds() {
  const timespec time = read(CLOCK_MONOTONIC);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNanosecondsPerSecond;
}

void SystemClock::sleepMicroseconds(std::uint32_t microseconds) {
  timespec end = read(CLOCK_MONOTONIC);
  end.tv_sec += microseconds / 1'000'000;
  end.tv_nsec += static_cast<long>(microseconds % 1'000'000) * 1000;
  if (end.tv_nsec >= kNanosecondsPerSecond) {
    end.tv_nsec -= kNanosecondsPerSecond;
    ++end.tv_sec;
  }
  // To a point in time rather than for a span, so that interruptions do not add up.
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace tessard
