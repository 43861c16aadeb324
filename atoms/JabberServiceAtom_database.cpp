#include "atoms/DatabaseTool.h"
#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"
#include "config/JabberPaths.h"

namespace tessard {

std::string NOTIFICATION_PLUGIN_JabberServiceAtom::determineDatabasePath() {
  const auto preferred = owner().getPreferenceValueForKey("jabberdDatabasePath");
  const auto path = preferred ? preferred->stringValue() : std::nullopt;
  return path.value_or(kJabberDefaultDatabasePath);
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::createServiceDatabase(const std::string& path) {
  const auto there = isThere(platform().files, path);
  if (!there) {
    databaseCreationFailed("", fill("%@: %@", {path, there.error().description()}));
    return false;
  }
  if (there.value()) return true;
  if (const auto made = ensureDatabaseDirectory(directoryOf(path)); !made) {
    logError_source(
        fill("unable to create the database directory for the service: '%@'", {made.error().description()}),
        "");
    return false;
  }
  // An interrupted attempt may have left a journal, and a link that leads nowhere would lead the tool there.
  if (const auto removed = removeDatabase(platform().files, path); !removed) {
    databaseCreationFailed("", fill("%@: %@", {path, removed.error().description()}));
    return false;
  }
  // Made by us, so that it belongs to the changes of the request: what the tool makes could not be put back.
  const FileOwnership ownership{kJabberUserID, kJabberGroupID, kDatabasePermissions};
  if (const auto made = platform().files.createFile(path, "", ownership, Flush::now); !made) {
    databaseCreationFailed("", fill("%@: %@", {path, made.error().description()}));
    return false;
  }
  const DatabaseOutcome outcome = makeDatabaseFromScript(platform(), kJabberDatabaseScript, path);
  if (!outcome.made) {
    databaseCreationFailed(outcome.output, outcome.errorText);
    // A database file counts as ready, so a half-made one would never be completed.
    static_cast<void>(removeDatabase(platform().files, path).ok());
    return false;
  }
  const auto owned = platform().files.setOwnership(path, ownership);
  if (owned) return true;
  logError_source(
      fill("unable to set ownership/permissions for the database: '%@'", {owned.error().description()}), "");
  static_cast<void>(removeDatabase(platform().files, path).ok());
  return false;
}

Result<void> NOTIFICATION_PLUGIN_JabberServiceAtom::ensureDatabaseDirectory(const std::string& path) {
  const auto there = isThere(platform().files, path);
  if (!there) return there.error();
  if (there.value()) return {};
  return platform().files.createDirectory(
      path, {kJabberUserID, kJabberGroupID, kDatabaseDirectoryPermissions}, true);
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::databaseCreationFailed(std::string_view output,
                                                                   std::string_view error) {
  logError_source(fill("Creating jabberd database failed: '%@'; '%@'", {output, error}), "");
}

}  // namespace tessard
