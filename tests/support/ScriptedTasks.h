#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/Tasks.h"

namespace tessard {

/// Runs nothing: records each call and answers as the test says. A program that the test says nothing about
/// cannot be started (status 127).
class ScriptedTasks : public Tasks {
 public:
  struct Call {
    std::string operation;  ///< "launch_task", "launch_task_with_input" or "ZtRunTask"
    std::string program;
    std::vector<TaskArgument> arguments;
    std::string input;
  };

  std::vector<Call> calls;

  /// The answer for every further call of the program.
  void on(std::string_view program, TaskResult result);
  /// The same, made for each call; it may also do to the files what the program would do.
  void on(std::string_view program, std::function<TaskResult(const Call&)> behaviour);

  TaskResult launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) override;
  TaskResult launch_task_with_input(std::string_view program, const std::vector<TaskArgument>& arguments,
                                    std::string_view input) override;
  int ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) override;

 private:
  TaskResult run(const Call& call);

  std::map<std::string, std::function<TaskResult(const Call&)>, std::less<>> behaviours_;
};

}  // namespace tessard
