#pragma once

#include <string>
#include <string_view>

#include "common/FileSystem.h"

namespace tessard {

/// How far a replacement came.
enum class ReplaceOutcome {
  replaced,             ///< the new content is on disk under the real name
  temporaryNotWritten,  ///< the file is as it was and no temporary file is left
  notExchanged,         ///< the file is as it was; the new content waits in the temporary file
};

struct Replacement {
  ReplaceOutcome outcome;
  SystemError error;  ///< the reason; code 0 when replaced
};

/// "%@.tmp" and "%@.bak" of a path.
std::string temporaryPathFor(std::string_view path);
std::string backupPathFor(std::string_view path);

/// Replaces an existing file and keeps its previous version as "%@.bak". The new content is complete and
/// flushed, with its owner and permissions, under "%@.tmp" before the two names are exchanged, so the real
/// name never disappears and a crash at any moment leaves the old or the new file whole under it. When the
/// displaced version cannot become the backup, the names are exchanged back. Without a file under the real
/// name the outcome is `notExchanged`.
Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership);

/// Puts a file with the content under the name, in place of any older one, in one step and without a backup.
/// The older file stays whole when the call fails.
Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership);

}  // namespace tessard
