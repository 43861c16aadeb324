#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Log.h"
#include "common/Result.h"
#include "common/Tasks.h"

namespace tessard {

/// Programs of this machine, started with posix_spawn.
///
/// A program is looked for as `systemRoot` + path, then as the path itself, then under its last name in
/// `programsDirectory`; the first executable regular file is taken, and the search follows links as the
/// machine has them. Path arguments get the system root in front, ".." in them ending at the root; the root
/// "/" leaves them as they are.
///
/// The environment is PATH and LANG=C.UTF-8 alone, and where the system root is not "/" TESSARD_ROOT, for our
/// own programs to know it; the working directory is "/", the umask this process's. A program that takes too
/// long gets TERM, 2 seconds later KILL, with its whole process group. Refused without a start (127): a
/// program or path argument that is not absolute, and a NUL byte anywhere. How this process must treat
/// SIGCHLD and what a call leaves running stands at `ChildProcess`. Any thread may call.
class PosixTasks : public Tasks {
 public:
  static constexpr double kTimeLimitSeconds = 60;
  static constexpr std::size_t kCaptureLimit = std::size_t{16} * 1024 * 1024;

  /// `log`, when it is given, is borrowed, and told why a program could not be run whose status alone is
  /// asked for.
  explicit PosixTasks(std::string systemRoot, std::string programsDirectory = "/usr/libexec/tessardd",
                      double timeLimitSeconds = kTimeLimitSeconds, Log* log = nullptr);

  TaskResult launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) override;
  TaskResult launch_task_with_input(std::string_view program, const std::vector<TaskArgument>& arguments,
                                    std::string_view input) override;
  int ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) override;

 private:
  Result<std::string> locate(std::string_view program) const;
  Result<std::vector<std::string>> argumentsFor(const std::string& program,
                                                const std::vector<TaskArgument>& arguments) const;
  std::vector<std::string> environment() const;
  TaskResult start(std::string_view program, const std::vector<TaskArgument>& arguments,
                   std::optional<std::string_view> input, bool capture) const;

  std::string prefix_;  // the system root without a slash at its end: empty for "/"
  std::string programsDirectory_;
  double timeLimitSeconds_;
  Log* log_;
};

}  // namespace tessard
