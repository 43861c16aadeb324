#pragma once

#include <string_view>

namespace tessard {

/// The machine's service manager. A label names one unit.
class ServiceManager {
 public:
  virtual ~ServiceManager() = default;

  /// True when the unit is running. An unknown label is not running.
  virtual bool GetLaunchDaemonServiceState(std::string_view label) = 0;

  /// Enables and starts the unit, or stops and disables it. True when the service manager did so and, for a
  /// start, the unit said that it is ready.
  virtual bool SetLaunchDaemonServiceState(std::string_view label, bool enable) = 0;
};

}  // namespace tessard
