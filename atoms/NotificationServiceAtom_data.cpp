#include <cerrno>

#include "atoms/DatabaseTool.h"
#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
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
  FileSystem& files = platform().files;
  const auto settings = dictionaryFromSettingsFile();
  if (!settings) return false;
  const Value* jid = settings->find("jid");
  if (!jid) return false;
  if (!files.exists(kNotificationDataDirectory)) return false;
  for (const NotificationDatabase& database : kNotificationDatabases) {
    if (!files.exists(database.path) || isEmptyFile(files, database.path)) return false;
  }
  if (!files.exists(kNotificationLogDirectory)) return false;
  if (connectsAsClient(*settings)) {
    const auto account = jid->stringValue();
    if (!account || !platform().directory.getpwnam(*account)) return false;
  }
  if (!files.exists(kNotificationConfigFilePath)) return false;
  return files.exists(kKorvBridgeDirectory);
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
  removeDatabase(platform().files, path);
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
  removeDatabase(platform().files, path);
}

// All tables are made in one transaction: the daemon's death meanwhile leaves none of them.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::isUnfinishedDatabase(const std::string& path) {
  if (isEmptyFile(platform().files, path)) return true;
  return platform().files.exists(path + "-journal") && !databaseHasTables(platform(), path);
}

}  // namespace tessard
