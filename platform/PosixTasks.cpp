#include "platform/PosixTasks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <utility>

#include "common/FileSystem.h"
#include "common/Format.h"
#include "platform/ChildProcess.h"

namespace tessard {

namespace {

constexpr int kNotStarted = 127;
constexpr double kGraceSeconds = 2;

// 0, or why the file cannot be executed.
int problemWithExecuting(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EACCES;
  return ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

std::string withoutSlashesAtEnd(std::string path) {
  while (path.ends_with('/')) path.pop_back();
  return path;
}

SystemError notAbsolute(std::string_view path) {
  return SystemError(EINVAL, std::string(path) + ": not an absolute path");
}

}  // namespace

PosixTasks::PosixTasks(std::string systemRoot, std::string programsDirectory, double timeLimitSeconds,
                       Log* log)
    : prefix_(withoutSlashesAtEnd(std::move(systemRoot))),
      programsDirectory_(withoutSlashesAtEnd(std::move(programsDirectory))),
      timeLimitSeconds_(timeLimitSeconds),
      log_(log) {}

TaskResult PosixTasks::launch_task(std::string_view program, const std::vector<TaskArgument>& arguments) {
  return start(program, arguments, std::nullopt, true);
}

TaskResult PosixTasks::launch_task_with_input(std::string_view program,
                                              const std::vector<TaskArgument>& arguments,
                                              std::string_view input) {
  return start(program, arguments, input, true);
}

int PosixTasks::ZtRunTask(std::string_view program, const std::vector<TaskArgument>& arguments) {
  const TaskResult ran = start(program, arguments, std::nullopt, false);
  // Nothing of the program's is captured: this is our own reason.
  if (log_ && !ran.errorText.empty()) {
    Object(*log_).logWarning_source(fill("running \"%@\" failed: %@", {program, ran.errorText}), "");
  }
  return ran.status;
}

Result<std::string> PosixTasks::locate(std::string_view program) const {
  if (!program.starts_with('/')) return notAbsolute(program);
  const std::string path(program);
  // What stands in the way of a file that is there says more than the absence of the others.
  int reason = ENOENT;
  for (const std::string& candidate :
       {prefix_ + path, path, programsDirectory_ + "/" + lastPathComponent(path)}) {
    const int problem = problemWithExecuting(candidate);
    if (problem == 0) return candidate;
    if (reason == ENOENT) reason = problem;
  }
  return SystemError(reason, path + ": " + SystemError(reason).description());
}

Result<std::vector<std::string>> PosixTasks::argumentsFor(const std::string& program,
                                                          const std::vector<TaskArgument>& arguments) const {
  std::vector<std::string> texts{program};
  for (const TaskArgument& argument : arguments) {
    if (argument.content.find('\0') != std::string::npos) {
      return SystemError(EINVAL, program + ": an argument holds a NUL byte");
    }
    const bool isPath = argument.kind == TaskArgument::Kind::path;
    if (isPath && !argument.content.starts_with('/')) return notAbsolute(argument.content);
    if (!isPath || prefix_.empty()) {
      texts.push_back(argument.content);
    } else {
      texts.push_back(prefix_ + std::filesystem::path(argument.content).lexically_normal().string());
    }
  }
  return texts;
}

std::vector<std::string> PosixTasks::environment() const {
  std::vector<std::string> variables = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8"};
  if (!prefix_.empty()) variables.push_back("TESSARD_ROOT=" + prefix_);
  return variables;
}

TaskResult PosixTasks::start(std::string_view program, const std::vector<TaskArgument>& arguments,
                             std::optional<std::string_view> input, bool capture) const {
  if (program.find('\0') != std::string_view::npos) {
    return {kNotStarted, "", "the program's name holds a NUL byte"};
  }
  const Result<std::string> located = locate(program);
  if (!located) return {kNotStarted, "", located.error().description()};
  Result<std::vector<std::string>> texts = argumentsFor(located.value(), arguments);
  if (!texts) return {kNotStarted, "", texts.error().description()};
  return run({.program = located.value(),
              .arguments = std::move(texts).value(),
              .environment = environment(),
              .input = input,
              .capture = capture,
              .captureLimit = kCaptureLimit,
              .timeLimitSeconds = timeLimitSeconds_,
              .graceSeconds = kGraceSeconds});
}

}  // namespace tessard
