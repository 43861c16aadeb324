#include "host/RequestTally.h"

#include <algorithm>
#include <cstddef>

namespace tessard {

void RequestTally::requestEnded(const std::string& plugin, const std::string& command,
                                const std::string& result, double seconds) {
  const auto bound = std::ranges::lower_bound(kDurations, seconds);
  const std::lock_guard lock(mutex_);
  ++counts_.requests[{plugin, command, result}];
  Durations& durations = counts_.durations[{plugin, command}];
  ++durations.counts[static_cast<std::size_t>(bound - kDurations.begin())];
  durations.seconds += seconds;
}

void RequestTally::answered(unsigned status) {
  const std::lock_guard lock(mutex_);
  ++counts_.answers[status];
}

void RequestTally::connectionOpened() {
  const std::lock_guard lock(mutex_);
  ++counts_.connections;
}

void RequestTally::connectionClosed() {
  const std::lock_guard lock(mutex_);
  --counts_.connections;
}

RequestTally::Counts RequestTally::counts() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

}  // namespace tessard
