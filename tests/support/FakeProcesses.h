#pragma once

#include <cerrno>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/Processes.h"

namespace tessard {

/// The processes that a test says are running.
class FakeProcesses : public Processes {
 public:
  /// Pid files by path, with the pid that each holds.
  std::map<std::string, pid_t, std::less<>> pidFiles;
  /// Pids that live.
  std::set<pid_t> alive;
  /// Running processes by name; a name that is missing counts 0.
  std::map<std::string, std::int32_t, std::less<>> counts;
  /// Names that cannot be counted, with the error number.
  std::map<std::string, int, std::less<>> countErrors;
  /// Start times by pid, in seconds since 1970.
  std::map<pid_t, std::int64_t> startTimes;
  /// The names that were counted and the pid files that were asked for, in order.
  std::vector<std::string> counted;
  std::vector<std::string> pidFilesAsked;

  pid_t pid_from_file(std::string_view path) override {
    pidFilesAsked.emplace_back(path);
    const auto found = pidFiles.find(path);
    return found == pidFiles.end() ? 0 : found->second;
  }

  int get_service_state_from_pid_file(std::string_view path) override {
    return alive.contains(pid_from_file(path)) ? 1 : 0;
  }

  int ec_is_daemon_running(std::string_view name, std::int32_t& count) override {
    counted.emplace_back(name);
    if (const auto error = countErrors.find(name); error != countErrors.end()) {
      errno = error->second;
      return -1;
    }
    const auto found = counts.find(name);
    count = found == counts.end() ? 0 : found->second;
    return 0;
  }

  std::int64_t start_time_in_seconds(pid_t pid) override {
    const auto found = startTimes.find(pid);
    return found == startTimes.end() ? 0 : found->second;
  }
};

}  // namespace tessard
