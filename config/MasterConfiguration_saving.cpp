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
  ReplacementBatch batch(platform_.files);
  return stageMaster(batch) && masterReplaced(batch.replace().front());
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::stageMaster(ReplacementBatch& batch) {
  std::string text;
  copyCachedConfigurationCommentsToString(text);
  copyCachedConfigurationPathsToString(text);
  const auto staged = batch.stage(configPath_, text, kConfigurationFileOwnership);
  return staged || masterReplaced({ReplaceOutcome::temporaryNotWritten, staged.error()});
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::masterReplaced(const Replacement& saved) {
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

std::vector<NOTIFICATION_PLUGIN_ComponentConfiguration*>
NOTIFICATION_PLUGIN_MasterConfiguration::changedComponents() const {
  std::vector<Component*> changed;
  if (!loadedConfigPaths_) return changed;
  for (const auto& [name, paths] : *loadedConfigPaths_) {
    const ComponentList* components = loadedComponentsForName(name);
    if (!components) continue;
    for (const auto& component : *components) {
      if (component->configDirty()) changed.push_back(component.get());
    }
  }
  return changed;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::saveAllConfigurations() {
  ReplacementBatch batch(platform_.files);
  std::vector<Component*> staged;
  const auto notSaved = [this](const Component& component) {
    platform_.changes.fail();
    logError_source(fill("error saving configuration file: \"%@\"", {component.configPath()}), "");
  };
  for (Component* component : changedComponents()) {
    if (component->stageDocument(batch)) {
      staged.push_back(component);
    } else {
      notSaved(*component);
    }
  }
  const bool saveMaster = configDirty_;
  const bool masterStaged = saveMaster && stageMaster(batch);
  const auto replacements = batch.replace();
  auto replaced = replacements.begin();
  for (Component* component : staged) {
    if (!component->documentReplaced(*replaced++)) notSaved(*component);
  }
  const bool masterSaved = masterStaged ? masterReplaced(*replaced) : !saveMaster;
  if (!masterSaved) platform_.changes.fail();
  return masterSaved;
}

}  // namespace tessard
