#include "platform/S6ServiceManager.h"

#include <cerrno>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

// How long a unit may take to become ready, or to end.
constexpr const char* kPatienceMilliseconds = "10000";

// Exit status of an s6 program that has waited in vain.
constexpr int kTimedOut = 99;

constexpr int kSupervisionPolls = 100;
constexpr std::uint32_t kSupervisionPollMicroseconds = 50000;

std::string reasonFor(const TaskResult& result, bool enable) {
  if (result.status == kTimedOut) {
    return enable ? "it did not say within 10 seconds that it is ready" : "it did not end within 10 seconds";
  }
  if (result.errorText.find("failed permanently") != std::string::npos) return "it failed and stays down";
  std::string said = result.errorText.substr(0, result.errorText.find('\n'));
  return said.empty() ? fill("s6-svc ended with status %d", {result.status}) : said;
}

}  // namespace

S6ServiceManager::S6ServiceManager(FileSystem& files, Tasks& tasks, Clock& clock, Log& log,
                                   std::string scanDirectory)
    : Object(log), files_(files), tasks_(tasks), clock_(clock), scanDirectory_(std::move(scanDirectory)) {}

bool S6ServiceManager::GetLaunchDaemonServiceState(std::string_view label) {
  const std::string directory = scanDirectory_ + "/" + std::string(label);
  if (!isServiceDirectory(label, directory) || !isSupervised(directory)) return false;
  const TaskResult result =
      tasks_.launch_task("/usr/bin/s6-svstat",
                         {TaskArgument::text("-o"), TaskArgument::text("up"), TaskArgument::path(directory)});
  return result.status == 0 && result.output == "true\n";
}

bool S6ServiceManager::SetLaunchDaemonServiceState(std::string_view label, bool enable) {
  const std::string name(label);
  const std::string directory = scanDirectory_ + "/" + name;
  if (!isServiceDirectory(label, directory)) {
    // Nothing is left running by a stop, so that is no error that a person must look after.
    logMessage_level_source(fill("s6 has no service \"%@\" in %@", {name, scanDirectory_}),
                            enable ? kLogError : kLogInfo, "");
    return false;
  }
  return enable ? start(name, directory) : stop(name, directory);
}

bool S6ServiceManager::start(const std::string& label, const std::string& directory) {
  const auto removed = files_.remove(directory + "/down");
  if (!removed && removed.error().code() != ENOENT) {
    logError_source(fill("the service \"%@\" cannot be enabled: %@", {label, removed.error().description()}),
                    "");
    return false;
  }
  if (removed && !files_.syncDirectory(directory)) {
    logWarning_source(fill("the service \"%@\" may not start with the machine", {label}), "");
  }
  if (!becomesSupervised(directory)) {
    logError_source(fill("s6 does not take up the service \"%@\"", {label}), "");
    return false;
  }
  return control(label, directory, true);
}

bool S6ServiceManager::stop(const std::string& label, const std::string& directory) {
  const std::string down = directory + "/down";
  bool disabled = files_.exists(down);
  if (!disabled) {
    const auto made = files_.createFile(down, "", {.owner = 0, .group = 0, .permissions = 0644}, Flush::now);
    disabled = made.ok();
    if (!made) {
      logError_source(fill("the service \"%@\" cannot be disabled: %@", {label, made.error().description()}),
                      "");
    }
  }
  // What nobody supervises does not run.
  const bool stopped = !isSupervised(directory) || control(label, directory, false);
  return disabled && stopped;
}

bool S6ServiceManager::isServiceDirectory(std::string_view label, const std::string& directory) {
  if (label.empty() || label.front() == '.' || label.find('/') != std::string_view::npos) return false;
  const auto attributes = files_.attributes(directory);
  return attributes && attributes.value().kind == FileAttributes::Kind::directory;
}

bool S6ServiceManager::isSupervised(const std::string& directory) {
  return tasks_.ZtRunTask("/usr/bin/s6-svok", {TaskArgument::path(directory)}) == 0;
}

bool S6ServiceManager::becomesSupervised(const std::string& directory) {
  if (isSupervised(directory)) return true;
  if (tasks_.ZtRunTask("/usr/bin/s6-svscanctl",
                       {TaskArgument::text("-a"), TaskArgument::path(scanDirectory_)}) != 0) {
    return false;
  }
  for (int poll = 0; poll < kSupervisionPolls; ++poll) {
    if (isSupervised(directory)) return true;
    clock_.sleepMicroseconds(kSupervisionPollMicroseconds);
  }
  return false;
}

// One program sends the command and waits, so that a unit that is quick to change is not missed.
bool S6ServiceManager::control(const std::string& label, const std::string& directory, bool enable) {
  const TaskResult result = tasks_.launch_task(
      "/usr/bin/s6-svc", {TaskArgument::text(enable ? "-wU" : "-wD"), TaskArgument::text("-T"),
                          TaskArgument::text(kPatienceMilliseconds), TaskArgument::text(enable ? "-u" : "-d"),
                          TaskArgument::path(directory)});
  if (result.status == 0) return true;
  logError_source(fill("the service \"%@\" could not be %@: %@",
                       {label, enable ? "started" : "stopped", reasonFor(result, enable)}),
                  "");
  return false;
}

}  // namespace tessard
