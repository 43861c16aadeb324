#include "atoms/JabberServiceAtom.h"

#include "atoms/ServicePieces.h"
#include "common/Format.h"
#include "config/JabberPaths.h"

namespace tessard {

std::unique_ptr<NOTIFICATION_PLUGIN_JabberServiceAtom>
NOTIFICATION_PLUGIN_JabberServiceAtom::jabberServiceAtom(Platform& platform, ServiceOwner* owner) {
  auto atom = std::make_unique<NOTIFICATION_PLUGIN_JabberServiceAtom>(platform);
  atom->initWithName_owner("jabberd", owner);
  return atom;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::serviceDataReady() {
  const std::string database = determineDatabasePath();
  logDebug_source(fill("Using %@ as the database path", {database}), "");
  return pieceIsThere(platform(), database) && directoryIsThere(platform(), kJabberRunDirectory);
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::initServiceData() {
  if (serviceDataReady()) return true;
  const std::string database = determineDatabasePath();
  logDebug_source(fill("Using %@ as the database path", {database}), "");
  // The data counts as ready before the templates are filled: an attempt that does not come that far must
  // leave nothing that would keep the next one from it.
  ChangeSet changes(platform().changes);
  if (!createServiceDatabase(database)) return false;
  if (!createServicePidDirectory()) return false;
  if (!initializeServiceConfigurations()) return false;
  const auto preference = owner().getPreferenceValueForKey("savedChatsLocation");
  const auto location = preference ? preference->stringValue() : std::nullopt;
  const bool usable = configureDirectory_ownerID_groupID_permissions(
      location, kJabberUserID, kSavedChatsGroupID, kSavedChatsPermissions);
  // What could not be made is tried again with all the rest; what is there is the administrator's.
  if (!usable && location && !platform().files.exists(*location)) return false;
  return changes.end() && usable;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_JabberServiceAtom::getServiceLogPaths() {
  return Dictionary{{"JABBER_LOG", "/var/log/system.log"}};
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::archiveServiceLogs() {
  return false;
}

}  // namespace tessard
