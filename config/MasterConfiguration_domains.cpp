#include <algorithm>
#include <cerrno>

#include "common/DurableReplace.h"
#include "common/Format.h"
#include "common/Utf8.h"
#include "config/MasterConfiguration.h"
#include "config/MasterFileLines.h"

namespace tessard {

namespace {

constexpr std::string_view kSessionManager = "sm";
constexpr std::string_view kPrimaryPathEnd = "sm.xml";

// Longest file name of the usual file systems (NAME_MAX), with room for the longer of the two suffixes that a
// save adds; both have four characters.
constexpr std::size_t kMaximumFileNameLength = 255 - 4;

bool isSecondaryPath(std::string_view path) {
  return !path.ends_with(kPrimaryPathEnd);
}

bool isSecondary(const std::unique_ptr<NOTIFICATION_PLUGIN_ComponentConfiguration>& component) {
  return isSecondaryPath(component->configPath().value_or(""));
}

// Whether a domain can stand in a file name, in a line of the master file and in a component file.
bool canNameFile(std::string_view domain, std::string_view fileName) {
  return !domain.empty() && fileName.size() <= kMaximumFileNameLength &&
         domain.find('/') == std::string_view::npos && !breaksLine(domain) && isXmlText(domain);
}

}  // namespace

void NOTIFICATION_PLUGIN_MasterConfiguration::setHostDomains(const std::vector<std::string>& domains) {
  const ComponentList* components = loadedComponentsForName(kSessionManager);
  if (!components || std::all_of(components->begin(), components->end(), isSecondary)) {
    // Going on would delete the only session-manager files, with nothing left to make new ones from.
    logError_source("no primary session manager is configured, domains not set", "");
    return;
  }
  removeAllSecondarySMConfigurations();
  logDebug_source(fill("Generating new sm*.xml for %ld domain(s).", {domains.size()}), "");
  if (domains.empty()) return;
  setPrimarySMDomain(domains.front());
  addSecondarySMDomains({domains.begin() + 1, domains.end()});
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::setPrimarySMDomain(std::string_view domain) {
  logDebug_source(fill("--generating sm.xml for PRIMARY domain: %@", {domain}), "");
  Component* primary = getPrimarySMComponent();
  if (!primary) {
    logError_source(fill("no primary session manager is configured for domain \"%@\"", {domain}), "");
    return true;
  }
  primary->setStringValue_forPath_nodeState(std::string(domain), "sm.local.id", kNodeLive);
  primary->setStringValue_forPath_nodeState("/var/run/jabberd_notification/sm.pid", "sm.pidfile", kNodeLive);
  return true;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::addSecondarySMDomain(std::string_view domain) {
  addSecondarySMDomains({std::string(domain)});
  return true;
}

void NOTIFICATION_PLUGIN_MasterConfiguration::addSecondarySMDomains(const std::vector<std::string>& domains) {
  const Component* primary = getPrimarySMComponent();
  const std::string source = primary ? primary->configPath().value_or("") : "";
  std::vector<std::string> added;
  std::vector<std::string> paths;
  for (const std::string& domain : domains) {
    logDebug_source(fill("--generating sm.xml for SECONDARY domain: %@", {domain}), "");
    const std::string fileName = fill("sm_%@.xml", {domain});
    if (source.empty()) {
      logError_source(fill("no primary session manager is configured for domain \"%@\"", {domain}), "");
    } else if (!canNameFile(domain, fileName)) {
      logError_source(fill("domain \"%@\" cannot name a file, left out", {domain}), "");
    } else {
      added.push_back(domain);
      paths.push_back(fill("%@/%@", {directoryOf(source), fileName}));
    }
  }
  makeSecondaryFiles(source, paths);
  for (std::size_t i = 0; i < added.size(); ++i) addSecondaryComponent(added[i], paths[i]);
  knownDocuments_.forgetCopies();
}

void NOTIFICATION_PLUGIN_MasterConfiguration::makeSecondaryFiles(const std::string& primaryPath,
                                                                 const std::vector<std::string>& paths) {
  if (paths.empty()) return;
  FileSystem& files = platform_.files;
  const FileCopies copies = files.copyFiles(primaryPath, paths, Component::kMaximumFileSize);
  knownDocuments_.expectCopies(copies);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string& path = paths[i];
    auto copied = copies.made[i] ? Result<void>() : Result<void>(copies.made[i].error());
    // A file that is there keeps its content: it is not removed, and the copy does not replace it. Where
    // nothing can be reached only a dangling link can be in the way.
    if (!copied && copied.error().code() == EEXIST && !files.exists(path)) {
      static_cast<void>(files.remove(path).ok());
      copied = files.copyFile(primaryPath, path);
    }
    if (copied || copied.error().code() == EEXIST) continue;
    logError_source(fill("session manager file not made: \"%@\" : %@", {path, copied.error().description()}),
                    "");
    platform_.changes.fail();
  }
}

void NOTIFICATION_PLUGIN_MasterConfiguration::addSecondaryComponent(const std::string& domain,
                                                                    const std::string& path) {
  cachePathConfig({std::string(kSessionManager), path});
  Component* secondary = cacheNewComponentForName_andPath(kSessionManager, path);
  secondary->loadDocument();
  secondary->setStringValue_forPath_nodeState(fill("sm_%@", {domain}), "sm.id", kNodeLive);
  secondary->setStringValue_forPath_nodeState(domain, "sm.local.id", kNodeLive);
  secondary->setStringValue_forPath_nodeState(fill("/var/run/jabberd_notification/sm_%@.pid", {domain}),
                                              "sm.pidfile", kNodeLive);
}

NOTIFICATION_PLUGIN_ComponentConfiguration* NOTIFICATION_PLUGIN_MasterConfiguration::getPrimarySMComponent()
    const {
  return defaultComponentForName(kSessionManager);
}

// Deletes a file if there is one; 1 when it is gone, 0 otherwise.
std::size_t NOTIFICATION_PLUGIN_MasterConfiguration::deleteFile(const std::string& path) {
  const auto removed = platform_.files.remove(path);
  if (removed) return 1;
  if (removed.error().code() == ENOENT || removed.error().code() == ENOTDIR) return 0;
  logError_source(fill("file not deleted: \"%@\" : %@", {path, removed.error().description()}), "");
  platform_.changes.fail();
  return 0;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::removeAllSecondarySMConfigurations() {
  std::size_t removedComponents = 0;
  std::size_t deletedFiles = 0;
  if (ComponentList* components = loadedComponents_.find(kSessionManager)) {
    removedComponents = std::erase_if(*components, [&](const auto& component) {
      if (!isSecondary(component)) return false;
      const std::string path = component->configPath().value_or("");
      deletedFiles += deleteFile(path) + deleteFile(backupPathFor(path));
      return true;
    });
  }
  const std::size_t removedPaths =
      loadedConfigPaths_ ? loadedConfigPaths_->removeIf(kSessionManager, isSecondaryPath) : 0;
  if (removedComponents == 0 && removedPaths == 0) {
    logDebug_source("No secondary SM configurations to remove.", "");
    return true;
  }
  logDebug_source(fill("Removed %ld secondary SM configuration files and backups (%ld files total).",
                       {removedComponents, deletedFiles}),
                  "");
  logDebug_source(fill("Removed %ld secondary SM entries from %@.", {removedPaths, kMasterFileName}), "");
  configDirty_ = true;
  return true;
}

}  // namespace tessard
