#include <cerrno>

#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"

namespace tessard {

namespace {

constexpr const char* kSystemLogPath = "/var/log/system.log";
constexpr const char* kErrorLogPath = "/var/log/idavoll/error.log";

}  // namespace

std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::getServiceLogPaths() {
  return Dictionary{{"JABBER_LOG", kSystemLogPath}, {"PUBSUB_ERROR_LOG", kErrorLogPath}};
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::archiveServiceLogs() {
  return false;
}

int NOTIFICATION_PLUGIN_NotificationServiceAtom::getServiceState() {
  return getProcessStateForPidFile(kNotificationPidFilePath) != 0 ? ServiceStateRunning : ServiceStateStopped;
}

// The bridge relays what the service publishes: it starts after the service and stops before it.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::setServiceState(int state) {
  ServiceManager& services = platform().services;
  if (state != ServiceStateRunning) {
    services.SetLaunchDaemonServiceState(kKorvBridgeLaunchdLabel, false);
    return services.SetLaunchDaemonServiceState(kNotificationLaunchdLabel, false);
  }
  // Read first: that makes the settings file where there is none yet, and the service cannot start without
  // it.
  const auto settings = readServiceConfiguration();
  if (!services.SetLaunchDaemonServiceState(kNotificationLaunchdLabel, true)) return false;
  const Value* bridge = settings ? settings->find("korvbridgeEnabled") : nullptr;
  if (bridge && bridge->boolValue()) services.SetLaunchDaemonServiceState(kKorvBridgeLaunchdLabel, true);
  return true;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::handleNetworkChanged(const NetworkChangeContext& context) {
  const auto domain = owner().currentHostDomain();
  if (!domain) {
    logDebug_source("Network change left us with no valid DNS hostname.  No action taken.", "");
    return;
  }
  if (domain->ends_with(".local")) {
    logDebug_source("Network change left us with a .local hostname.  No action taken.", "");
    return;
  }
  if (!context.hasValidNetworkConfiguration()) {
    logDebug_source("Network change created invalid network configuration.  No action taken.", "");
    return;
  }
  takeNewHostFrom(context);
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::handleChangeIPRequest(const NetworkChangeContext& context) {
  logDebug_source("Processing changeip request.", "");
  if (!context.hasValidNetworkConfiguration()) {
    logDebug_source("Network change created invalid network configuration.  No action taken.", "");
    return;
  }
  if (context.hasHostChanged()) {
    for (const NotificationDatabase& database : kNotificationDatabases) {
      const auto removed = platform().files.remove(database.path);
      // A database that is not there is as good as removed.
      if (removed || removed.error().code() == ENOENT) continue;
      logWarning_source(fill("\"%@\" of the former host name was not removed: %@",
                             {database.path, removed.error().description()}),
                        "");
    }
    logDebug_source("Removing notification database since hostname changed.", "");
  }
  takeNewHostFrom(context);
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::takeNewHostFrom(const NetworkChangeContext& context) {
  if (!context.hasHostChanged() && !context.hasAddrChanged()) {
    logNotice_source("Network change ignored - no change in host(s) or address(s).", "");
    return;
  }
  if (context.isNewAddressSelfAssigned()) {
    logNotice_source("Detected self-assigned address. No action taken.", "");
    return;
  }
  const auto& host = context.newHost();
  if (!host) {
    logConfigCreationError("missing new host argument");
    return;
  }
  logDebug_source(fill("creating config file for network change: new host=\"%@\"", {*host}), "");
  updateConfigFile(host);
}

}  // namespace tessard
