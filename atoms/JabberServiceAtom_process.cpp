#include <algorithm>
#include <array>

#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"
#include "config/JabberPaths.h"
#include "config/MasterConfiguration.h"

namespace tessard {

namespace {

constexpr std::array<const char*, 4> kPidFiles = {
    "/private/var/run/jabberd_notification/s2s.pid",
    "/private/var/run/jabberd_notification/c2s.pid",
    "/private/var/run/jabberd_notification/sm.pid",
    "/private/var/run/jabberd_notification/router.pid",
};

constexpr std::uint32_t kPollMicroseconds = 500000;
constexpr double kLongestStartSeconds = 60.0;
constexpr double kLongestStopSeconds = 10.0;

}  // namespace

int NOTIFICATION_PLUGIN_JabberServiceAtom::getServiceState() {
  for (const char* pidFile : kPidFiles) {
    if (getProcessStateForPidFile(pidFile) == 1) return ServiceStateRunning;
  }
  return ServiceStateStopped;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::setServiceState(int state) {
  const bool start = state == ServiceStateRunning;
  if (!platform().services.SetLaunchDaemonServiceState(kJabberLabel, start)) {
    logWarning_source(fill("jabberd couldn't be %@", {start ? "started" : "stopped"}), "");
  }
  const bool reached = waitForServiceState_maxWait_waitSleep(
      state, start ? kLongestStartSeconds : kLongestStopSeconds, kPollMicroseconds);
  if (!reached && start) {
    logWarning_source("some jabberd processes failed to start", "");
    if (platform().services.SetLaunchDaemonServiceState(kJabberLabel, false)) {
      waitForServiceState_maxWait_waitSleep(ServiceStateStopped, kLongestStopSeconds, kPollMicroseconds);
    }
  }
  return reached;
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::handleNetworkChanged(const NetworkChangeContext& context) {
  const auto current = owner().currentHostDomain();
  if (!current) {
    logDebug_source("Network change left us with no valid DNS hostname.  No action taken.", "");
    return;
  }
  if (current->ends_with(".local")) {
    logDebug_source("Network change left us with a .local hostname.  No action taken.", "");
    return;
  }
  if (!context.hasHostChanged() || !context.hasValidNetworkConfiguration()) return;
  const std::string host = context.newHost().value_or(*current);
  logDebug_source(fill("updating configuration for network change: new host=\"%@\"", {host}), "");
  config().setStringValues_forPath({host}, "c2s.local.id");
  // The bare host name, not "pubsub." in front of it as after a settings write: required as it stands.
  config().setStringValues_forPath({host}, "sm.velto_notification_component_addr");
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::handleChangeIPRequest(const NetworkChangeContext& context) {
  auto domains = getServiceDomains();
  if (!domains || !context.oldHost()) return;
  if (std::ranges::find(*domains, *context.oldHost()) == domains->end()) return;
  if (!context.newHost()) {
    logError_source(fill("no new name for \"%@\": nothing was changed", {*context.oldHost()}), "");
    return;
  }
  std::ranges::replace(*domains, *context.oldHost(), *context.newHost());
  config().setStringValues_forPath(*domains, "c2s.local.id");
  const auto settings = readServiceConfiguration();
  const auto fileFor = [&](const char* key) -> std::optional<std::string> {
    const std::string* path = settings ? settings->stringFor(key) : nullptr;
    return path ? std::optional(*path) : std::nullopt;
  };
  auto keyFile = fileFor("sslKeyFile");
  if (keyFile && keyFile->empty()) keyFile.reset();
  setSSLEnableForKeyFilePath_withCAChainFile(keyFile, fileFor("sslCAFile"));
  config().setStringValue_forPath(fill("pubsub.%@", {domains->front()}),
                                  "sm.velto_notification_component_addr");
  config().setStringValue_forPath(fill("rooms.%@", {domains->front()}), "router.filter_muc_messages_from");
}

}  // namespace tessard
