#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/Services.h"

namespace tessard {

/// A service manager whose units run from their start to their stop and do nothing.
class RecordingServiceManager : public ServiceManager {
 public:
  struct Change {
    std::string label;
    bool enable;
    bool operator==(const Change&) const = default;
  };

  std::set<std::string, std::less<>> running;
  /// Labels whose changes fail and leave the unit as it is.
  std::set<std::string, std::less<>> failing;
  /// All attempts to change a unit, and all questions about one, in order.
  std::vector<Change> changes;
  std::vector<std::string> asked;
  /// Called after each successful change.
  std::function<void(const Change&)> afterChange;

  bool GetLaunchDaemonServiceState(std::string_view label) override {
    asked.emplace_back(label);
    return running.contains(label);
  }

  bool SetLaunchDaemonServiceState(std::string_view label, bool enable) override {
    const Change change{std::string(label), enable};
    changes.push_back(change);
    if (failing.contains(label)) return false;
    if (enable) {
      running.insert(change.label);
    } else {
      running.erase(change.label);
    }
    if (afterChange) afterChange(change);
    return true;
  }
};

}  // namespace tessard
