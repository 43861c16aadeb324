#include "host/Watchdog.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

using std::chrono::milliseconds;

// A third, so that one word may be late.
std::optional<milliseconds> thirdOf(std::optional<std::chrono::microseconds> patience) {
  if (!patience) return std::nullopt;
  return std::max(milliseconds(1), std::chrono::duration_cast<milliseconds>(*patience / 3));
}

}  // namespace

Watchdog::Watchdog(std::optional<std::chrono::microseconds> patience,
                   std::function<WorkSlot::Status()> status, std::function<void(const char*)> tell,
                   HostLog& log)
    : interval_(thirdOf(patience)), status_(std::move(status)), tell_(std::move(tell)), log_(log) {}

void Watchdog::tick(Moment now) {
  if (!interval_ || (last_ && now - *last_ < *interval_)) return;
  if (!isWell()) return;
  last_ = now;
  tell_("WATCHDOG=1");
}

bool Watchdog::isWell() {
  const WorkSlot::Status status = status_();
  const bool isStuck =
      status.running && status.runningSeconds > std::chrono::duration<double>(kLongestWork).count();
  if (isStuck && !hasWarned_) {
    log_.error(
        fill("\"%@\" does not end; the service manager is to start the daemon anew.", {*status.running}));
  }
  hasWarned_ = isStuck;
  return !isStuck;
}

std::optional<std::chrono::microseconds> patienceOfServiceManager() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
  return std::chrono::microseconds(microseconds);
}

}  // namespace tessard
