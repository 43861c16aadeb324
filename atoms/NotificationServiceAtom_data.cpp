#include <cerrno>

#include "atoms/DatabaseTool.h"
#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "atoms/ServicePieces.h"
#include "common/Format.h"

namespace tessard {

namespace {

// What an attempt leaves that was cut off at its beginning.
bool isEmptyFile(FileSystem& files, const std::string& path) {
  const auto attributes = files.attributes(path);
  return attributes && attributes.value().size == 0;
}

}  // namespace

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::serviceDataReady() {
  const auto settings = dictionaryFromSettingsFile();
  if (!settings) return false;
  const Value* jid = settings->find("jid");
  if (!jid) return false;
  if (!pieceIsThere(platform(), kNotificationDataDirectory)) return false;
  for (const NotificationDatabase& database : kNotificationDatabases) {
    if (!pieceIsThere(platform(), database.path) || isEmptyFile(platform().files, database.path))
      return false;
  }
  if (!pieceIsThere(platform(), kNotificationLogDirectory)) return false;
  if (connectsAsClient(*settings)) {
    const auto account = jid->stringValue();
    if (!account || !platform().directory.getpwnam(*account)) return false;
  }
  if (!pieceIsThere(platform(), kNotificationConfigFilePath)) return false;
  return pieceIsThere(platform(), kKorvBridgeDirectory);
}

// What cannot be made is told and does not keep the rest from being made: the data is not ready then, and the
// next request tries again.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::initServiceData() {
  if (serviceDataReady()) return true;
  auto settings = dictionaryFromSettingsFile();
  const Value* jid = settings ? settings->find("jid") : nullptr;
  const auto account = jid ? jid->stringValue() : std::nullopt;
  if (!account) {
    logError_source("Beaconry data init failed: could not find \"jid\" in settings file.", "");
    return false;
  }
  if (makeDataDirectory(kNotificationDataDirectory, kNotificationDataOwnership)) {
    for (const NotificationDatabase& database : kNotificationDatabases) makeDatabase(database);
  }
  makeDataDirectory(kKorvBridgeDirectory, kNotificationDataOwnership);
  makeDataDirectory(kNotificationLogDirectory, kNotificationLogOwnership);
  checkChatAccessForServiceUser();
  if (!platform().directory.getpwnam(*account) || !settings->contains("password")) {
    prepareComponentAccount(*account, *settings);
  }
  if (const auto host = owner().currentHostDomain()) return updateConfigFile(host);
  logDebug_source("Unable to determine hostname", "");
  return false;
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::connectsAsClient(const SettingsDictionary& settings) {
  const Value* client = settings.find("connectAsClient");
  return client && client->boolValue();
}

// Asking for no change tells a link from everything else.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::isLink(const std::string& path) {
  const auto unchanged = platform().files.setOwnership(path, {});
  return !unchanged && unchanged.error().code() == ELOOP;
}

// The service's account can write in its directories: a link there may lead root's programs anywhere.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::refusesLink(const std::string& path) {
  if (!isLink(path)) return false;
  logError_source(fill("\"%@\" is a symbolic link and is not used: put what it leads to in its place, or "
                       "remove the link",
                       {path}),
                  "");
  return true;
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::makeDataDirectory(const std::string& path,
                                                                    const FileOwnership& ownership) {
  if (refusesLink(path)) return false;
  const auto there = isThere(platform().files, path);
  if (there && there.value()) return true;
  const auto made =
      there ? platform().files.createDirectory(path, ownership, false) : Result<void>(there.error());
  if (made) return true;
  logError_source(fill("the directory \"%@\" of the notification service cannot be made: %@",
                       {path, made.error().description()}),
                  "");
  return false;
}

// A database file counts as ready, so a half-made one would never be completed.
void NOTIFICATION_PLUGIN_NotificationServiceAtom::makeDatabase(const NotificationDatabase& database) {
  const std::string path = database.path;
  if (refusesLink(path)) return;
  const auto there = isThere(platform().files, path);
  if (!there) return tellDatabaseNotMade(path, there.error().description());
  if (there.value() && !isUnfinishedDatabase(path)) return;
  if (const auto removed = removeDatabase(platform().files, path); !removed) {
    return tellDatabaseNotMade(path, removed.error().description());
  }
  // It belongs to the service before there is anything in it, so that no attempt leaves one that does not.
  const auto begun = platform().files.createFile(path, "", kNotificationDataOwnership, Flush::now);
  if (!begun) {
    databaseNotMade(path, begun.error().description());
    return;
  }
  const DatabaseOutcome outcome = makeDatabaseFromScript(platform(), database.script, path);
  if (!outcome.made) {
    databaseNotMade(path, outcome.errorText.empty() ? outcome.output : outcome.errorText);
    return;
  }
  const auto owned = platform().files.setOwnership(path, kNotificationDataOwnership);
  if (!owned) return databaseNotMade(path, owned.error().description());
  platform().changes.keep();
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::tellDatabaseNotMade(const std::string& path,
                                                                      const std::string& reason) {
  logError_source(fill("the database \"%@\" of the notification service cannot be made: %@", {path, reason}),
                  "");
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::databaseNotMade(const std::string& path,
                                                                  const std::string& reason) {
  tellDatabaseNotMade(path, reason);
  static_cast<void>(removeDatabase(platform().files, path).ok());
}

// All tables are made in one transaction: the daemon's death meanwhile leaves none of them.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::isUnfinishedDatabase(const std::string& path) {
  if (isEmptyFile(platform().files, path)) return true;
  if (!platform().files.exists(path + "-journal")) return false;
  const auto hasTables = databaseHasTables(platform(), path);
  return hasTables && !hasTables.value();
}

}  // namespace tessard
