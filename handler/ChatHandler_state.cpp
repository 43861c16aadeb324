#include <cerrno>
#include <cstdint>

#include "atoms/NotificationPaths.h"
#include "common/Format.h"
#include "common/Text.h"
#include "handler/ChatHandler.h"

namespace tessard {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1000000;
// Error numbers of services travel in sixteen bits.
constexpr int kServiceErrorMask = 0xFFFF;

// The ports that clients and other servers reach the service on.
std::vector<PortItem> portsToCheck() {
  return {std::uint16_t{5218}, std::uint16_t{5268}, std::set<std::uint16_t>{16384, 16403}};
}

const char* runningWord(bool running) {
  return running ? "RUNNING" : "STOPPED";
}

bool wantsDetails(const Dictionary& request) {
  const std::string* variant = request.stringFor("variant");
  return variant && variant->starts_with("withDetails");
}

}  // namespace

Dictionary NOTIFICATION_PLUGIN_ChatHandler::getStateWithRequest(const Dictionary& request) {
  const bool ready = passGate();
  errno = 0;
  const int jabberdState = serviceStateForName("jabberd");
  const int reason = errno;
  if (jabberdState == ServiceStateUnknown && reason != 0) {
    return responseForError_serviceError("CANNOT_STAT_ERR", reason & kServiceErrorMask);
  }
  const RunningState running{jabberdState == ServiceStateRunning,
                             platform_.services.GetLaunchDaemonServiceState(kNotificationLaunchdLabel)};
  Dictionary answer{{"state", runningWord(running.jabberd && running.publishSubscribe)}};
  if (!wantsDetails(request)) return answer;
  if (!ready) {
    logWarning_source("detailed service status not available until network configuration completed", "");
    return answer;
  }
  addDetails(running, answer);
  return answer;
}

// The answer is built like every dictionary of parallel lists: it ends before the first absent value.
void NOTIFICATION_PLUGIN_ChatHandler::addDetails(RunningState running, Dictionary& answer) {
  answer.set("idavollState", runningWord(running.publishSubscribe));
  answer.set("jabberdState", runningWord(running.jabberd));
  answer.set("startedTime", startedTime(running));
  const auto domains = serviceWrangler_->getDomainsForService("jabberd");
  answer.set("hostsCommaDelimitedString", domains ? joinedWith(*domains, ",") : "");
  answer.set("setStateVersion", 1);
  answer.set("readWriteSettingsVersion", 1);
  answer.set("currentConnections", currentConnections(running));
  Array restrictions;
  const bool restricted = platform_.network.check_if_ports_are_restricted(portsToCheck(), restrictions);
  answer.set("servicePortsAreRestricted", restricted ? "YES" : "NO");
  answer.set("servicePortsRestrictionInfo", restrictions);
  auto* notification = notificationAtom();
  const auto services = notification ? notification->getConfiguredServices() : std::nullopt;
  if (!services) return;
  answer.set("configuredServices", *services);
  answer.set("pluginVersion", pluginVersion_);
}

std::string NOTIFICATION_PLUGIN_ChatHandler::startedTime(RunningState running) {
  if (!running.publishSubscribe) return "";
  const pid_t pid = platform_.processes.pid_from_file(kNotificationPidFilePath);
  if (pid <= 0) return "";
  const std::int64_t seconds = platform_.processes.start_time_in_seconds(pid);
  return describeDate(Date{seconds * kMicrosecondsPerSecond});
}

std::string NOTIFICATION_PLUGIN_ChatHandler::currentConnections(RunningState running) {
  std::int64_t total = 0;
  if (running.jabberd) {
    for (const Value& counters : serviceWrangler_->getConnectedUsersForService("jabberd")) {
      const Dictionary* counts = counters.asDictionary();
      const Value* users = counts ? counts->find("connUsersTotal") : nullptr;
      if (users) total += users->integerValue();
    }
  }
  return fill("%ld", {total});
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::setStateWithRequest(const Dictionary& request) {
  const std::string* state = request.stringFor("state");
  if (passGate()) {
    // What the last start or stop gave is dropped on purpose: the answer is the state that it led to.
    if (state && *state == "START") {
      startServices();
    } else if (state && *state == "STOP") {
      stopServices();
    } else if (state && *state == "RESTART") {
      restartServices();
    } else {
      return responseForError("INVALID_ARG_ERR");
    }
  }
  return getStateWithRequest(request);
}

int NOTIFICATION_PLUGIN_ChatHandler::startServices() {
  const int result = serviceWrangler_->startAllServices();
  if (result == kStartStopSucceeded) enablePortForwarding(true);
  return result;
}

int NOTIFICATION_PLUGIN_ChatHandler::stopServices() {
  const int result = serviceWrangler_->stopAllServices();
  if (result == kStartStopSucceeded) enablePortForwarding(false);
  return result;
}

int NOTIFICATION_PLUGIN_ChatHandler::restartServices() {
  const int stopped = stopServices();
  return stopped == kStartStopSucceeded ? startServices() : stopped;
}

}  // namespace tessard
