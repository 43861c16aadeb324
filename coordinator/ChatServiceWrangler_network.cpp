#include "common/Format.h"
#include "common/Text.h"
#include "coordinator/ChatServiceWrangler.h"

namespace tessard {

std::optional<std::string> NOTIFICATION_PLUGIN_ChatServiceWrangler::currentHostDomain() {
  logDebug_source("Scanning for valid hostname", "");
  const auto configured = platform_.hostNames.configuredName();
  if (!configured) {
    logError_source("Couldn't get preferences for setting hostname", "");
    return std::nullopt;
  }
  std::optional<std::string> name = configured.value();
  if (!name) {
    logDebug_source("SCPreferencesGetHostName returned nil hostname", "");
    name = platform_.hostNames.storedName();
    if (!name) {
      logDebug_source("NSHost gave us nil, cannot determine hostname", "");
      return std::nullopt;
    }
    logDebug_source(fill("NSHost gave us: %@", {name}), "");
  }
  logDebug_source(fill("Using hostname: %@", {name}), "");
  return name;
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::updateMasterConfigurationForNetworkChange(
    const NetworkChangeContext& context) {
  const auto current = currentHostDomain();
  if (!current) {
    logDebug_source("Network change left us with no valid DNS hostname.  No action taken.", "");
    return;
  }
  if (current->ends_with(".local")) {
    logDebug_source("Network change left us with a .local hostname.  No action taken.", "");
    return;
  }
  replaceChangedDomain(context);
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::updateMasterConfigurationForChangeIP(
    const NetworkChangeContext& context) {
  replaceChangedDomain(context);
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::replaceChangedDomain(const NetworkChangeContext& context) {
  if (!context.hasValidNetworkConfiguration()) {
    logDebug_source("Network change created invalid network configuration.  No action taken.", "");
    return;
  }
  if (!context.hasHostChanged()) {
    logDebug_source("Network change resulted in no domain changes.  No action taken.", "");
    return;
  }
  std::vector<std::string> domains = getDomainsForService("jabberd").value_or(std::vector<std::string>{});
  bool replaced = false;
  for (std::string& domain : domains) {
    if (!context.newHost() || domain != context.oldHost()) continue;
    domain = *context.newHost();
    replaced = true;
  }
  if (replaced) {
    masterConfig_->setHostDomains(domains);
  } else {
    logDebug_source("No changes detected in configured domains, no action taken.", "");
  }
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::handleNetworkChanged(const NetworkChangeContext& context) {
  masterConfig_->loadAllConfigurations();
  ChangeSet changes(platform_.changes, [this] { masterConfig_->revertMasterConfiguration(); });
  updateMasterConfigurationForNetworkChange(context);
  for (const auto& atom : serviceAtoms_) atom->handleNetworkChanged(context);
  masterConfig_->saveAllConfigurations();
  changes.end();
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::handleChangeIPRequest(const NetworkChangeContext& context) {
  masterConfig_->loadAllConfigurations();
  ChangeSet changes(platform_.changes, [this] { masterConfig_->revertMasterConfiguration(); });
  updateMasterConfigurationForChangeIP(context);
  for (const auto& atom : serviceAtoms_) atom->handleChangeIPRequest(context);
  masterConfig_->saveAllConfigurations();
  changes.end();
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::setHostDomainsFrom(const SettingsDictionary& settings) {
  if (const std::string* joined = settings.stringFor("hostsCommaDelimitedString")) {
    masterConfig_->setHostDomains(componentsOf(*joined, ','));
  } else if (const Array* hosts = settings.arrayFor("hosts")) {
    masterConfig_->setHostDomains(stringsOf(*hosts));
  }
}

}  // namespace tessard
