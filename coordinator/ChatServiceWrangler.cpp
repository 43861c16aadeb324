#include "coordinator/ChatServiceWrangler.h"

#include <algorithm>

#include "atoms/JabberServiceAtom.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"
#include "coordinator/SettingsProblems.h"

namespace tessard {

namespace {

// How often a failed stop is repeated within one request. Each repetition may wait ten seconds for the
// processes.
constexpr int kDeepestCleanUp = 3;

}  // namespace

NOTIFICATION_PLUGIN_ChatServiceWrangler::NOTIFICATION_PLUGIN_ChatServiceWrangler(Platform& platform)
    : Object(platform.log), platform_(platform), lists_(platform.files, platform.clock) {}

std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler>
NOTIFICATION_PLUGIN_ChatServiceWrangler::chatServiceWrangler(Platform& platform) {
  auto wrangler = std::make_unique<NOTIFICATION_PLUGIN_ChatServiceWrangler>(platform);
  wrangler->initWithConfigPath(std::nullopt);
  return wrangler;
}

std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler>
NOTIFICATION_PLUGIN_ChatServiceWrangler::chatServiceWranglerWithConfigPath(Platform& platform,
                                                                           const std::string& path) {
  auto wrangler = std::make_unique<NOTIFICATION_PLUGIN_ChatServiceWrangler>(platform);
  wrangler->initWithConfigPath(path);
  return wrangler;
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::initWithConfigPath(const std::optional<std::string>& path) {
  using Master = NOTIFICATION_PLUGIN_MasterConfiguration;
  setMasterConfig(path ? Master::masterConfigurationWithPath(platform_, *path)
                       : Master::masterConfiguration(platform_));
  auto notification = NOTIFICATION_PLUGIN_NotificationServiceAtom::notificationServiceAtom(platform_, this);
  auto jabber = NOTIFICATION_PLUGIN_JabberServiceAtom::jabberServiceAtom(platform_, this);
  Atoms atoms;
  atoms.push_back(std::move(jabber));
  atoms.push_back(std::move(notification));
  setServiceAtoms(std::move(atoms));
}

void NOTIFICATION_PLUGIN_ChatServiceWrangler::setMasterConfig(
    std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> config) {
  masterConfig_ = std::move(config);
}

NOTIFICATION_PLUGIN_ChatServiceAtom* NOTIFICATION_PLUGIN_ChatServiceWrangler::serviceAtomForName(
    std::string_view name) const {
  const auto found =
      std::ranges::find_if(serviceAtoms_, [&](const auto& atom) { return atom->serviceName() == name; });
  return found == serviceAtoms_.end() ? nullptr : found->get();
}

std::vector<NOTIFICATION_PLUGIN_ChatServiceAtom*>
NOTIFICATION_PLUGIN_ChatServiceWrangler::serviceAtomsForName(std::string_view name) const {
  std::vector<NOTIFICATION_PLUGIN_ChatServiceAtom*> found;
  for (const auto& atom : serviceAtoms_) {
    if (atom->serviceName() == name) found.push_back(atom.get());
  }
  return found;
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::initAllServiceData() {
  if (!currentHostDomain()) return false;
  for (const auto& atom : serviceAtoms_) {
    if (!atom->serviceDataReady() && !atom->initServiceData()) return false;
  }
  logDebug_source("All service atoms initialized successfully", "");
  return masterConfig_->loadAllConfigurations();
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::serviceDataIsInitialized() {
  if (!currentHostDomain()) return false;
  for (const auto& atom : serviceAtoms_) {
    if (atom->serviceDataReady()) continue;
    logDebug_source(fill("%@ Atom reports that service data is not ready", {atom->serviceName()}), "");
    return false;
  }
  return true;
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::readAllConfigurations() {
  masterConfig_->loadAllConfigurations();
  std::optional<SettingsDictionary> merged;
  for (const auto& atom : serviceAtoms_) {
    const auto settings = atom->readServiceConfiguration();
    if (!settings) continue;
    if (!merged) merged.emplace();
    merged->updateWithDictionary(*settings);
  }
  return merged;
}

std::optional<std::string> NOTIFICATION_PLUGIN_ChatServiceWrangler::problemWithWriteSettings(
    const SettingsDictionary& settings) {
  if (auto problem = problemWithSettings(settings)) return problem;
  return problemWithHosts(*filterWriteSettings(&settings));
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::writeAllConfigurations_error(const SettingsDictionary* settings,
                                                                           int& error) {
  error = kWriteSucceeded;
  masterConfig_->loadAllConfigurations();
  const auto filtered = filterWriteSettings(settings);
  if (const auto problem = filtered ? problemWithHosts(*filtered) : std::nullopt) {
    logError_source(fill("settings refused: %@", {*problem}), "");
    return false;
  }
  ChangeSet changes(platform_.changes, [this] { masterConfig_->revertMasterConfiguration(); });
  const PropertyListFiles::FirstLooks looks(lists_);
  if (filtered) setHostDomainsFrom(*filtered);
  for (const auto& atom : serviceAtoms_) {
    // The set is left without its end, and so is put back.
    if (!atom->writeServiceConfiguration_error(filtered ? &*filtered : nullptr, error)) return false;
  }
  masterConfig_->saveAllConfigurations();
  // What could not be saved is in the log, and all is as it was: the result tells of refusals alone.
  changes.endUndoably();
  return true;
}

int NOTIFICATION_PLUGIN_ChatServiceWrangler::startStopServices_serviceAction(
    const std::vector<std::string>& names, int action) {
  const bool start = action == kServiceActionStart;
  for (const std::string& name : names) {
    auto* atom = serviceAtomForName(name);
    if (atom && atom->setServiceState(start ? ServiceStateRunning : ServiceStateStopped)) continue;
    logError_source(fill("Error -- failed to %@ service: %@", {start ? "start" : "stop", name}), "");
    cleanUpByStopping();
    return start ? kFailedToStart : kFailedToStop;
  }
  return kStartStopSucceeded;
}

// The stop that cleans up may fail and clean up in turn. A service that never stops must not do so for ever.
void NOTIFICATION_PLUGIN_ChatServiceWrangler::cleanUpByStopping() {
  if (cleanUpDepth_ == kDeepestCleanUp) return;
  // Counted down also when a service throws.
  const std::unique_ptr<int, void (*)(int*)> deeper(&++cleanUpDepth_, [](int* depth) { --*depth; });
  stopAllServices();
}

int NOTIFICATION_PLUGIN_ChatServiceWrangler::startAllServices() {
  return startStopServices_serviceAction({"jabberd", "Notification"}, kServiceActionStart);
}

int NOTIFICATION_PLUGIN_ChatServiceWrangler::stopAllServices() {
  return startStopServices_serviceAction({"Notification", "jabberd"}, kServiceActionStop);
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::archiveAllServiceLogs() {
  return std::ranges::all_of(serviceAtoms_, [](const auto& atom) { return atom->archiveServiceLogs(); });
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::getAllServiceLogPaths() {
  std::optional<Dictionary> merged;
  for (const auto& atom : serviceAtoms_) {
    const auto paths = atom->getServiceLogPaths();
    if (!paths) continue;
    if (!merged) merged.emplace();
    merged->updateWithDictionary(*paths);
  }
  return merged;
}

Array NOTIFICATION_PLUGIN_ChatServiceWrangler::getConnectedUsersForService(std::string_view name) {
  Array counters;
  for (auto* atom : serviceAtomsForName(name)) {
    if (auto users = atom->getServiceConnectedUsers()) counters.emplace_back(std::move(*users));
  }
  return counters;
}

std::vector<std::string> NOTIFICATION_PLUGIN_ChatServiceWrangler::getConnectedUserNamesForService(
    std::string_view name) {
  std::vector<std::string> all;
  for (auto* atom : serviceAtomsForName(name)) {
    const auto names = atom->getServiceConnectedUserNames();
    if (names) all.insert(all.end(), names->begin(), names->end());
  }
  return all;
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_ChatServiceWrangler::getDomainsForService(
    std::string_view name) {
  std::vector<std::string> all;
  for (auto* atom : serviceAtomsForName(name)) {
    const auto domains = atom->getServiceDomains();
    if (domains) all.insert(all.end(), domains->begin(), domains->end());
  }
  return all;
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::doIdleTasks() {
  return archiveAllServiceLogs();
}

}  // namespace tessard
