#include "platform/SystemdTasks.h"

#include "common/FileSystem.h"

namespace tessard {

namespace {

constexpr std::string_view kSystemdRun = "/usr/bin/systemd-run";

}  // namespace

TaskResult SystemdTasks::launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) {
  const Line line = lineFor(program, arguments);
  return tasks_.launch_task(line.program, line.arguments);
}

TaskResult SystemdTasks::launch_task_with_input(std::string_view program,
                                                const std::vector<TaskArgument>& arguments,
                                                std::string_view input) {
  const Line line = lineFor(program, arguments);
  return tasks_.launch_task_with_input(line.program, line.arguments, input);
}

int SystemdTasks::ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) {
  const Line line = lineFor(program, arguments);
  return tasks_.ZtRunTask(line.program, line.arguments);
}

SystemdTasks::Line SystemdTasks::lineFor(std::string_view program,
                                         const std::vector<TaskArgument>& arguments) const {
  const auto right = rights_.find(lastPathComponent(program));
  if (right == rights_.end()) return {program, arguments};
  Line line{kSystemdRun, {}};
  // Its mounts are the machine's, since a program may be asked what can be written there.
  const std::string capabilities = "--property=CapabilityBoundingSet=" + right->second;
  for (const std::string_view word :
       {std::string_view("--quiet"), std::string_view("--collect"), std::string_view("--wait"),
        std::string_view("--pipe"), std::string_view(capabilities),
        std::string_view("--property=NoNewPrivileges=yes"), std::string_view("--"), program}) {
    line.arguments.push_back(TaskArgument::text(word));
  }
  line.arguments.insert(line.arguments.end(), arguments.begin(), arguments.end());
  return line;
}

}  // namespace tessard
