#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

namespace tessard {

/// The running processes, as the machine shows them.
class Processes {
 public:
  virtual ~Processes() = default;

  /// The pid that a pid file holds (decimal digits, an optional line end), 0 when there is no such file, when
  /// it is unreadable or holds anything else.
  virtual pid_t pid_from_file(std::string_view path) = 0;

  /// Non-zero when the pid file names a live process that goes by the file's name: the word that the name
  /// begins with ("sm" of "sm_one.example.pid") is part of the process's name. Any other process was given
  /// the number after the one that the file was written for had ended.
  virtual int get_service_state_from_pid_file(std::string_view path) = 0;

  /// Counts the running processes of a name into `count`. Negative, with errno set, when it cannot tell.
  virtual int ec_is_daemon_running(std::string_view name, std::int32_t& count) = 0;

  /// When the process was started, in seconds since 1970 UTC; 0 when there is no such process.
  virtual std::int64_t start_time_in_seconds(pid_t pid) = 0;
};

}  // namespace tessard
