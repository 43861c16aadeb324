#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessard {

/// An argument of a program: text, handed over as it stands, or a path below the system root, which the
/// program gets as it must open it.
struct TaskArgument {
  enum class Kind { text, path };

  static TaskArgument text(std::string_view text) { return {Kind::text, std::string(text)}; }
  static TaskArgument path(std::string_view path) { return {Kind::path, std::string(path)}; }
  bool operator==(const TaskArgument&) const = default;

  Kind kind;
  std::string content;
};

/// How a program ended. `status` is its exit status; 128 plus the signal's number when a signal ended it; 127
/// when it could not be started and 124 when it was ended for taking too long, each with the reason in
/// `errorText`.
struct TaskResult {
  int status = 0;
  std::string output;
  std::string errorText;
};

/// Runs outside programs: by argument list, never through a shell, with a clean environment, the pipes
/// drained together so that no output can block, and within a time limit. A program named by an absolute path
/// is looked for below the system root, on the machine, and then under its last name among the programs that
/// come with the daemon. Each call returns when the program has ended.
class Tasks {
 public:
  virtual ~Tasks() = default;

  /// Standard input is empty; standard output and error are captured (at most 16 MiB each; the rest is
  /// dropped).
  virtual TaskResult launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) = 0;

  /// The same with a text on standard input.
  virtual TaskResult launch_task_with_input(std::string_view program,
                                            const std::vector<TaskArgument>& arguments,
                                            std::string_view input) = 0;

  /// The exit status alone; nothing is fed or captured.
  virtual int ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) = 0;
};

}  // namespace tessard
