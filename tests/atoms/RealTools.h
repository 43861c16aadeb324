#pragma once

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "platform/PosixTasks.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

/// Lets the scripted tasks of a test run programs of the machine for real, on its scratch root.
class RealTools {
 public:
  explicit RealTools(TestPlatform& platform) : platform_(platform), tasks_(platform.root.path()) {
    // Other users must get through to what the tests give them.
    if (::chmod(platform.root.path().c_str(), 0755) != 0)
      throw std::runtime_error("chmod of the scratch root");
  }

  /// From now on the program is run; the call is recorded as ever.
  void run(const std::string& program) {
    platform_.tasks.on(program, [this](const ScriptedTasks::Call& call) { return carryOut(call); });
  }

  TaskResult carryOut(const ScriptedTasks::Call& call) {
    if (call.operation == "launch_task_with_input") {
      return tasks_.launch_task_with_input(call.program, call.arguments, call.input);
    }
    if (call.operation == "launch_task") return tasks_.launch_task(call.program, call.arguments);
    return {tasks_.ZtRunTask(call.program, call.arguments), "", ""};
  }

  PosixTasks& tasks() { return tasks_; }

 private:
  TestPlatform& platform_;
  PosixTasks tasks_;
};

inline std::string machineFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace tessard
