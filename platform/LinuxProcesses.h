#pragma once

#include <array>
#include <string>

#include "common/FileSystem.h"
#include "common/Processes.h"

namespace tessard {

/// The processes that this machine's /proc shows. Pid files are read below the system root; /proc is the
/// machine's own whatever the root. A zombie has ended: it is neither live nor counted. The id of a mere
/// thread names no process.
class LinuxProcesses : public Processes {
 public:
  /// The file system is borrowed and outlives this object.
  explicit LinuxProcesses(FileSystem& files, std::string procPath = "/proc");

  pid_t pid_from_file(std::string_view path) override;
  int get_service_state_from_pid_file(std::string_view path) override;

  /// A process goes by the name when the kernel's name for it is that, or the last part of its argument 0:
  /// the kernel's is cut after 15 bytes, and a script's argument 0 is its interpreter. Returns 0 when it
  /// could count, -1 otherwise. Processes whose files this process may not read are not counted.
  int ec_is_daemon_running(std::string_view name, std::int32_t& count) override;

  std::int64_t start_time_in_seconds(pid_t pid) override;

 private:
  bool isLive(const std::string& pid) const;
  /// The kernel's name for it, and the last part of its argument 0; empty what cannot be read.
  std::array<std::string, 2> namesOf(const std::string& pid) const;
  bool goesByName(const std::string& pid, std::string_view name) const;

  FileSystem& files_;
  std::string procPath_;
};

}  // namespace tessard
