#include "tests/support/ScriptedTasks.h"

#include <utility>

namespace tessard {

void ScriptedTasks::on(std::string_view program, TaskResult result) {
  on(program, [result = std::move(result)](const Call&) { return result; });
}

void ScriptedTasks::on(std::string_view program, std::function<TaskResult(const Call&)> behaviour) {
  behaviours_[std::string(program)] = std::move(behaviour);
}

TaskResult ScriptedTasks::launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) {
  return run({"launch_task", std::string(program), arguments, ""});
}

TaskResult ScriptedTasks::launch_task_with_input(std::string_view program,
                                                 const std::vector<TaskArgument>& arguments,
                                                 std::string_view input) {
  return run({"launch_task_with_input", std::string(program), arguments, std::string(input)});
}

int ScriptedTasks::ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) {
  return run({"ZtRunTask", std::string(program), arguments, ""}).status;
}

TaskResult ScriptedTasks::run(const Call& call) {
  calls.push_back(call);
  const auto found = behaviours_.find(call.program);
  if (found == behaviours_.end()) return {127, "", "cannot start " + call.program};
  return found->second(call);
}

}  // namespace tessard
