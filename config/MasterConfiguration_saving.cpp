#include "common/DurableReplace.h"
#include "common/Format.h"
#include "config/FileMoments.h"
#include "config/MasterConfiguration.h"
#include "config/MasterFileLines.h"
#include "config/ServiceAccount.h"

namespace tessard {

void NOTIFICATION_PLUGIN_MasterConfiguration::copyCachedConfigurationCommentsToString(
    std::string& text) const {
  for (const std::string& comment : loadedComments_) text += fill("%@\n", {comment});
  text += '\n';
}

void NOTIFICATION_PLUGIN_MasterConfiguration::copyCachedConfigurationPathsToString(std::string& text) const {
  for (const auto& [name, components] : loadedComponents_) {
    if (name.size() > kNameColumns) {
      logError_source(fill("component name too long to be listed: \"%@\"", {name}), "");
      continue;
    }
    std::string column(kNameColumns, ' ');
    column.replace(0, name.size(), name);
    for (const auto& component : components) text += fill("%@%@\n", {column, component->configPath()});
  }
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::saveMasterConfiguration() {
  if (!configDirty_) return true;
  std::string text;
  copyCachedConfigurationCommentsToString(text);
  copyCachedConfigurationPathsToString(text);
  const auto saved = replaceKeepingBackup(platform_.files, configPath_, text, kConfigurationFileOwnership);
  if (saved.outcome == ReplaceOutcome::temporaryNotWritten) {
    logError_source(fill("error saving configuration file: \"%@\" : %@",
                         {temporaryPathFor(configPath_), saved.error.description()}),
                    "");
  }
  if (saved.outcome == ReplaceOutcome::notExchangedBack) {
    logError_source(fill("previous version could not be kept as backup, it is left in \"%@\"",
                         {temporaryPathFor(configPath_)}),
                    "");
  }
  if (saved.outcome != ReplaceOutcome::replaced) return false;
  // A backup that keeps its old owner is still a backup: a failure is ignored.
  static_cast<void>(
      platform_.files.setOwnership(backupPathFor(configPath_), kConfigurationFileOwnership).ok());
  configDirty_ = false;
  loadTime_ = momentOfLook(platform_.files, configPath_, platform_.clock.now());
  logDebug_source(fill("%@ saved.", {kMasterFileName}), "");
  return true;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::saveAllConfigurations() {
  if (loadedConfigPaths_) {
    for (const auto& [name, paths] : *loadedConfigPaths_) {
      const ComponentList* components = loadedComponentsForName(name);
      if (!components) continue;
      for (const auto& component : *components) {
        if (component->saveDocument()) continue;
        logError_source(fill("error saving configuration file: \"%@\"", {component->configPath()}), "");
      }
    }
  }
  return saveMasterConfiguration();
}

}  // namespace tessard
