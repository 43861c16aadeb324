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
  stageMaster(batch);
  return masterReplaced(batch.replace().front());
}

void NOTIFICATION_PLUGIN_MasterConfiguration::stageMaster(ReplacementBatch& batch) {
  std::string text;
  copyCachedConfigurationCommentsToString(text);
  copyCachedConfigurationPathsToString(text);
  stagedVersion_ = versionOf(text);
  batch.stage(configPath_, std::move(text), kConfigurationFileOwnership, readVersion_);
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
  if (saved.outcome == ReplaceOutcome::changedMeanwhile) {
    logError_source(fill("\"%@\" is not saved: %@", {configPath_, saved.error.description()}), "");
    platform_.changes.leave(configPath_);
  }
  if (saved.outcome != ReplaceOutcome::replaced) return false;
  // A backup that keeps its old owner is still a backup: a failure is ignored.
  static_cast<void>(
      platform_.files.setOwnership(backupPathFor(configPath_), kConfigurationFileOwnership).ok());
  configDirty_ = false;
  loadTime_ = momentOfLook(platform_.files, configPath_, platform_.clock.now());
  readVersion_ = stagedVersion_;
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
  // What was to be changed in these is not known any more.
  for (const auto& [name, components] : loadedComponents_) {
    for (const auto& component : components) {
      if (component->couldNotBeRead()) notSaved(*component);
    }
  }
  for (Component* component : changedComponents()) {
    if (component->stageDocument(batch)) {
      staged.push_back(component);
    } else {
      notSaved(*component);
    }
  }
  const bool saveMaster = configDirty_;
  if (saveMaster) stageMaster(batch);
  const auto replacements = batch.replace();
  auto replaced = replacements.begin();
  // Of a temporary file that could not be written it is told already.
  const auto tellReason = [this](const Replacement& failed) {
    if (failed.outcome == ReplaceOutcome::temporaryNotWritten) return;
    logWarning_source(fill("Reason of the save failure: %@", {failed.error.description()}), "");
  };
  for (Component* component : staged) {
    const Replacement& saved = *replaced++;
    if (component->documentReplaced(saved)) continue;
    notSaved(*component);
    tellReason(saved);
  }
  if (!saveMaster || masterReplaced(*replaced)) return true;
  platform_.changes.fail();
  tellReason(*replaced);
  return false;
}

}  // namespace tessard
