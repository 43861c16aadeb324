#include "atoms/JabberPaths.h"
#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"

namespace tessard {

namespace {

constexpr std::size_t kScriptSizeLimit = 1024UL * 1024;

}  // namespace

std::string NOTIFICATION_PLUGIN_JabberServiceAtom::determineDatabasePath() {
  const auto preferred = owner().getPreferenceValueForKey("jabberdDatabasePath");
  const auto path = preferred ? preferred->stringValue() : std::nullopt;
  return path.value_or(kJabberDefaultDatabasePath);
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::createServiceDatabase(const std::string& path) {
  if (platform().files.exists(path)) return true;
  const std::string directory = directoryOf(path);
  if (!platform().files.exists(directory)) {
    const auto made = platform().files.createDirectory(
        directory, {kJabberUserID, kJabberGroupID, kDatabaseDirectoryPermissions}, true);
    if (!made) {
      logError_source(
          fill("unable to create the database directory for the service: '%@'", {made.error().description()}),
          "");
      return false;
    }
  }
  // An interrupted attempt may have left a journal, and a link that leads nowhere would lead the tool there.
  removeDatabase(path);
  if (!runDatabaseScript(path)) {
    removeDatabase(path);
    return false;
  }
  const auto owned =
      platform().files.setOwnership(path, {kJabberUserID, kJabberGroupID, kDatabasePermissions});
  if (owned) return true;
  logError_source(
      fill("unable to set ownership/permissions for the database: '%@'", {owned.error().description()}), "");
  removeDatabase(path);
  return false;
}

// The database tool reports success when its script is missing or broken, so the script is checked before and
// the tables after.
bool NOTIFICATION_PLUGIN_JabberServiceAtom::runDatabaseScript(const std::string& path) {
  const auto script = platform().files.readFile(kJabberDatabaseScript, kScriptSizeLimit);
  if (!script || script.value().empty()) {
    const std::string reason = script ? "the file is empty" : script.error().description();
    databaseCreationFailed("", fill("%@: %@", {kJabberDatabaseScript, reason}));
    return false;
  }
  const TaskResult made = platform().tasks.launch_task_with_input(
      kDatabaseTool,
      {TaskArgument::text("-init"), TaskArgument::path(kJabberDatabaseScript), TaskArgument::path(path)},
      ".exit\n");
  if (made.status != 0 || !made.errorText.empty()) {
    databaseCreationFailed(made.output, made.errorText);
    return false;
  }
  if (databaseHasTables(path)) return true;
  databaseCreationFailed(made.output, fill("%@: the script made no tables", {kJabberDatabaseScript}));
  return false;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::databaseHasTables(const std::string& path) {
  // Not read-only: such a connection would leave its own, root's, "-wal" and "-shm" files behind. An empty
  // script stands in for the calling user's own start-up file.
  const TaskResult tables = platform().tasks.launch_task(
      kDatabaseTool, {TaskArgument::text("-init"), TaskArgument::text("/dev/null"), TaskArgument::path(path),
                      TaskArgument::text("SELECT count(*) FROM sqlite_master WHERE type = 'table';")});
  return tables.status == 0 && integerReading(tables.output) > 0;
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::databaseCreationFailed(std::string_view output,
                                                                   std::string_view error) {
  logError_source(fill("Creating jabberd database failed: '%@'; '%@'", {output, error}), "");
}

// A database file counts as ready, so a half-made one would never be completed. The tool may have made none
// of the files, and what cannot be removed the next attempt finds.
void NOTIFICATION_PLUGIN_JabberServiceAtom::removeDatabase(const std::string& path) {
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    static_cast<void>(platform().files.remove(path + suffix).ok());
  }
}

}  // namespace tessard
