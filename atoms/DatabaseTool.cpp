#include "atoms/DatabaseTool.h"

#include <cerrno>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr const char* kDatabaseTool = "/usr/bin/sqlite3";
constexpr std::size_t kScriptSizeLimit = 1024UL * 1024;
// That of a time limit, of a failed start and of signals (`TaskResult`).
constexpr int kFirstStatusWithoutAnswer = 124;

}  // namespace

DatabaseOutcome makeDatabaseFromScript(Platform& platform, const std::string& script,
                                       const std::string& path) {
  const auto content = platform.files.readFile(script, kScriptSizeLimit);
  if (!content || content.value().empty()) {
    const std::string reason = content ? "the file is empty" : content.error().description();
    return {false, "", fill("%@: %@", {script, reason})};
  }
  const TaskResult made = platform.tasks.launch_task_with_input(
      kDatabaseTool, {TaskArgument::text("-init"), TaskArgument::path(script), TaskArgument::path(path)},
      ".exit\n");
  if (made.status != 0 || !made.errorText.empty()) return {false, made.output, made.errorText};
  const auto hasTables = databaseHasTables(platform, path);
  if (!hasTables) return {false, made.output, hasTables.error().description()};
  if (hasTables.value()) return {true, made.output, ""};
  return {false, made.output, fill("%@: the script made no tables", {script})};
}

Result<bool> databaseHasTables(Platform& platform, const std::string& path) {
  // Not read-only: such a connection would leave its own, root's, "-wal" and "-shm" files behind. An empty
  // script stands in for the calling user's own start-up file.
  const TaskResult tables = platform.tasks.launch_task(
      kDatabaseTool, {TaskArgument::text("-init"), TaskArgument::text("/dev/null"), TaskArgument::path(path),
                      TaskArgument::text("SELECT count(*) FROM sqlite_master WHERE type = 'table';")});
  if (tables.status >= kFirstStatusWithoutAnswer) return SystemError(EIO, tables.errorText);
  return tables.status == 0 && integerReading(tables.output) > 0;
}

// The first failure is told, and the rest removed all the same.
Result<void> removeDatabase(FileSystem& files, const std::string& path) {
  Result<void> done;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    auto removed = files.remove(path + suffix);
    if (!removed && mayPass(removed.error()) && done) done = std::move(removed);
  }
  return done;
}

}  // namespace tessard
