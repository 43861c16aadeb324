#include "platform/SystemdServiceManager.h"

#include <string>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr const char* kProgram = "/usr/bin/systemctl";
constexpr int kTookTooLong = 124;
constexpr int kNotStarted = 127;

// A label that systemctl could take for an option, a pattern or another unit's file names no unit.
bool namesUnit(std::string_view label) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !label.empty() && label.front() != '-' && label.front() != '.' &&
         label.find_first_not_of(kLetters) == std::string_view::npos;
}

// The last line that names a cause. systemctl begins with the links that it makes and ends with where to read
// more about a job that failed.
std::string reasonFor(const TaskResult& result) {
  if (result.status == kTookTooLong) return "systemctl still waits for it";
  std::string_view said = result.errorText;
  while (!said.empty()) {
    const auto before = said.find_last_of('\n', said.size() - 1);
    const std::string_view line = before == std::string_view::npos ? said : said.substr(before + 1);
    if (!line.empty() && !line.starts_with("See \"systemctl")) return std::string(line);
    said = before == std::string_view::npos ? std::string_view() : said.substr(0, before);
  }
  return fill("systemctl ended with status %d", {result.status});
}

}  // namespace

bool SystemdServiceManager::GetLaunchDaemonServiceState(std::string_view label) {
  if (!namesUnit(label)) return false;
  return tasks_.ZtRunTask(kProgram,
                          {TaskArgument::text("is-active"), TaskArgument::text("--quiet"),
                           TaskArgument::text("--"), TaskArgument::text(fill("%@.service", {label}))}) == 0;
}

bool SystemdServiceManager::SetLaunchDaemonServiceState(std::string_view label, bool enable) {
  const std::string unit = fill("%@.service", {label});
  const TaskResult found =
      namesUnit(label) ? tasks_.launch_task(kProgram, {TaskArgument::text("cat"), TaskArgument::text("--"),
                                                       TaskArgument::text(unit)})
                       : TaskResult{1, "", "a unit cannot be named so"};
  if (found.status == kNotStarted) {
    logError_source(fill("systemd cannot be asked: %@", {reasonFor(found)}), "");
    return false;
  }
  if (found.status != 0) {
    // Nothing is left running by a stop, so that is no error that a person must look after.
    logMessage_level_source(fill("systemd has no unit \"%@\": %@", {unit, reasonFor(found)}),
                            enable ? kLogError : kLogInfo, "");
    return false;
  }
  const TaskResult result = tasks_.launch_task(
      kProgram, {TaskArgument::text(enable ? "enable" : "disable"), TaskArgument::text("--now"),
                 TaskArgument::text("--"), TaskArgument::text(unit)});
  if (result.status == 0) return true;
  logError_source(
      fill("the unit \"%@\" could not be %@: %@", {unit, enable ? "started" : "stopped", reasonFor(result)}),
      "");
  return false;
}

}  // namespace tessard
