#include "coordinator/ChatServiceWrangler.h"

namespace tessard {

LastChange NOTIFICATION_PLUGIN_ChatServiceWrangler::undoLastWrite() {
  ChangeSet changes(platform_.changes);
  LastChange undone = platform_.changes.undoLast();
  if (!changes.endUndoably() && undone.state == LastChange::State::undoable) {
    undone.state = LastChange::State::failed;
  }
  // The files bear the times that they had, which are older than what is loaded.
  masterConfig_->revertMasterConfiguration();
  return undone;
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::settingsBeforeLastWrite() {
  const auto former = platform_.changes.filesBeforeLast();
  if (!former) return std::nullopt;
  Platform before = platform_.withFiles(*former);
  return chatServiceWranglerWithConfigPath(before, masterConfig_->configPath())->readAllConfigurations();
}

}  // namespace tessard
