#pragma once

#include <string>

#include "common/Value.h"
#include "platform/PosixFileSystem.h"
#include "platform/logs/LinuxLogReader.h"

namespace tessard {

/// How the services below one system root are doing, as their launchers tell it: for whoever waits for a
/// start, and for those who want to know why it failed. Any thread may call.
class ServiceReports {
 public:
  explicit ServiceReports(const std::string& root);

  /// Label -> {"state", "reason" (where there is one), "parts": [{"name", "state", "pid", "log"}]}.
  /// The states are those of `ServiceStatus` and "lost", for a launcher that is gone without a word. "log",
  /// an array of strings, holds the last lines in the system log of a part that has ended by itself. Pids and
  /// lines are those of this machine's processes.
  Dictionary all() const;

 private:
  mutable PosixFileSystem files_;
  mutable LinuxLogReader logs_;
};

}  // namespace tessard
