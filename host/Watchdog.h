#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "host/HostLog.h"
#include "host/WorkSlot.h"

namespace tessard {

/// Tells the service manager again and again that the daemon is well; one that is not told starts the daemon
/// anew, which undoes what was cut off. The daemon is not well while one piece of work goes on for longer
/// than any has a right to. For one thread.
class Watchdog {
 public:
  using Moment = WorkSlot::Moment;

  /// Longer than everything that a request may wait for, one after the other.
  static constexpr std::chrono::seconds kLongestWork{900};

  /// `patience` is how long the service manager waits for a word; absent when it does not listen. `status`
  /// and `tell` are called by `tick`; `tell` passes one word on.
  Watchdog(std::optional<std::chrono::microseconds> patience, std::function<WorkSlot::Status()> status,
           std::function<void(const char*)> tell, HostLog& log);

  /// How often `tick` is to be called at the least; absent when that is not needed.
  std::optional<std::chrono::milliseconds> interval() const { return interval_; }

  /// May be called at any time.
  void tick(Moment now);

 private:
  bool isWell();

  const std::optional<std::chrono::milliseconds> interval_;
  const std::function<WorkSlot::Status()> status_;
  const std::function<void(const char*)> tell_;
  HostLog& log_;
  std::optional<Moment> last_;
  bool hasWarned_ = false;
};

/// What systemd says about its patience with this process; absent when it has none to lose.
std::optional<std::chrono::microseconds> patienceOfServiceManager();

}  // namespace tessard
