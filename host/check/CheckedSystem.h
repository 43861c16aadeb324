#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/HostConfiguration.h"
#include "host/check/Instance.h"
#include "platform/LinuxHostNames.h"
#include "platform/PosixFileSystem.h"
#include "platform/PosixTasks.h"
#include "platform/SystemClock.h"

namespace tessard {

/// What the daemon knows of its plug-ins: their names, and why a bundle could not be used.
struct PluginFacts {
  std::vector<std::string> loaded;
  std::map<std::string, std::string> problems;
};

/// The system below the root of a configuration, for one area of the check on one thread: it shares nothing
/// with the requests, so that nothing that hangs here holds one up. Nothing is changed through it.
class CheckedSystem {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  /// `deadline` is when the area must have ended.
  CheckedSystem(const HostConfiguration& configuration, const PluginFacts& plugins, Moment deadline);

  const HostConfiguration configuration;
  const PluginFacts plugins;
  const Moment deadline;
  PosixFileSystem files;
  PosixTasks tasks;  ///< each within the time that is left at the beginning
  SystemClock clock;
  LinuxHostNames hostNames;
  /// Whether the machine's own sockets, processes and interfaces belong to this root.
  bool isMachine;
  std::string processes = "/proc";
  /// The addresses of a host within so many seconds; absent when they do not come.
  std::function<std::optional<std::vector<std::string>>(const std::string& host, double seconds)> lookUp;

  /// The configuration of the service, read at the first call.
  const Instance& instance();

  double secondsLeft() const;
  /// Whether the name itself is a symbolic link.
  bool isLink(std::string_view path) const;
  /// A path of the machine, links resolved, for a path of the system.
  Result<std::string> machinePathOf(std::string_view path) const;

 private:
  std::optional<Instance> instance_;
};

}  // namespace tessard
