#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Tasks.h"

namespace tessard {

/// What is run, and how.
struct ChildProcess {
  std::string program;                 ///< a path of the machine
  std::vector<std::string> arguments;  ///< from argument 0 on
  std::vector<std::string> environment;

  /// Text for standard input; /dev/null without one. A program may leave it unread.
  std::optional<std::string_view> input;
  /// Whether standard output and error are kept; they are /dev/null otherwise.
  bool capture = true;
  /// How much is kept of each; the rest is read and dropped.
  std::size_t captureLimit = 0;
  /// After this the program's process group is sent TERM and, after `graceSeconds` more, KILL.
  double timeLimitSeconds = 0;
  double graceSeconds = 0;
};

/// Runs a program in a process group of its own, in the directory "/", with no descriptor but 0, 1 and 2, no
/// blocked signal and every signal's default action. Returns when the program itself has ended; what it left
/// running keeps running, unless the time was over: then its whole group has ended. Output is what had been
/// written by the time the program ended.
///
/// Statuses are those of `TaskResult`. Nothing of this process changes but for SIGPIPE, which the calling
/// thread holds back meanwhile. SIGCHLD must not be ignored and nobody else may wait for the child: its
/// status is lost then, which is reported like a program that could not be started. Any thread may call.
TaskResult run(const ChildProcess& child);

}  // namespace tessard
