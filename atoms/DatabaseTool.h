#pragma once

#include <string>

#include "common/Platform.h"

namespace tessard {

/// What the database tool came to, with what it wrote.
struct DatabaseOutcome {
  bool made = false;
  std::string output;
  std::string errorText;
};

/// Makes a database from a script with the tool sqlite3. The tool reports success when its script is missing
/// or broken, so the script is checked before and the tables after. What a failed run made stays.
DatabaseOutcome makeDatabaseFromScript(Platform& platform, const std::string& script,
                                       const std::string& path);

/// Whether the database can be read and has a table; the reason where the tool could not be asked.
Result<bool> databaseHasTables(Platform& platform, const std::string& path);

/// Removes a database and the files that the tool keeps beside it while it works, those that are there.
Result<void> removeDatabase(FileSystem& files, const std::string& path);

}  // namespace tessard
