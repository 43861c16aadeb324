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
  notExchangedBack,     ///< the new content has the real name, the previous version the temporary one
};

struct Replacement {
  ReplaceOutcome outcome;
  SystemError error;  ///< the reason; code 0 when replaced
};

/// "%@.tmp" and "%@.bak" of a path.
std::string temporaryPathFor(std::string_view path);
std::string backupPathFor(std::string_view path);

/// Replaces an existing file and keeps its previous version as "%@.bak", in place of any older backup. The
/// new content is complete and flushed, with its owner and permissions, under "%@.tmp" before the two names
/// are exchanged, so the real name never disappears and a crash at any moment leaves the old or the new file
/// whole under it. The directory is flushed before the displaced version becomes the backup; when either
/// fails, the names are exchanged back and the older backup is still there. Without a file under the real
/// name the outcome is `notExchanged`; a directory of that name is not replaced (`temporaryNotWritten`,
/// EISDIR).
Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership);

/// Puts a file with the content under the name, in place of any older one, in one step and without a backup.
/// When the call fails, the older file stays whole under its name (or there is none, as before) and no
/// temporary file is left; only when the disk also refuses to undo the exchange has the new content the name
/// and the older file the temporary one. A directory of that name is not replaced.
Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership);

}  // namespace tessard
