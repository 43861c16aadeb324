#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/Tasks.h"

namespace tessard {

/// Has systemd run the programs that need a right which this process has given up, each in a unit of its own
/// that has this right and hardly another. All other programs are run as ever.
class SystemdTasks : public Tasks {
 public:
  /// The last names of programs, and for each the capabilities that it is given, such as "CAP_NET_ADMIN".
  using Rights = std::map<std::string, std::string, std::less<>>;

  /// `tasks` is borrowed; it also runs "systemd-run". Programs in `rights` are given arguments that are paths
  /// as they are: systemd runs what belongs to the root "/".
  SystemdTasks(Tasks& tasks, Rights rights) : tasks_(tasks), rights_(std::move(rights)) {}

  TaskResult launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) override;
  TaskResult launch_task_with_input(std::string_view program, const std::vector<TaskArgument>& arguments,
                                    std::string_view input) override;
  int ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) override;

 private:
  struct Line {
    std::string_view program;
    std::vector<TaskArgument> arguments;
  };
  Line lineFor(std::string_view program, const std::vector<TaskArgument>& arguments) const;

  Tasks& tasks_;
  const Rights rights_;
};

}  // namespace tessard
