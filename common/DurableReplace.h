#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

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

/// Replaces existing files together and keeps the previous version of each as "%@.bak", in place of any older
/// backup. All new contents are complete, with their owners and permissions, under "%@.tmp" and are flushed
/// in one go before the first file exchanges names with its temporary, so no real name ever disappears and a
/// crash at any moment leaves the old or the new file whole under each. The directories are flushed, once
/// each, before the displaced versions become the backups; what fails from the exchange on is exchanged back,
/// with the older backup still there, and does not keep the other files from being replaced.
///
/// The contents need not be in memory together: `stage` one after the other, then `replace` all.
class ReplacementBatch {
 public:
  /// The file system is borrowed.
  explicit ReplacementBatch(FileSystem& files) : files_(files) {}
  ReplacementBatch(const ReplacementBatch&) = delete;
  ReplacementBatch& operator=(const ReplacementBatch&) = delete;
  /// What was staged and not replaced is removed.
  ~ReplacementBatch();

  /// Writes the new content of a file under its temporary name. A failure is a `temporaryNotWritten`: the
  /// file has no part in the batch, the others do. A directory is not replaced (EISDIR).
  Result<void> stage(std::string_view path, std::string_view content, const FileOwnership& ownership);

  /// Replaces the staged files; one outcome for each, in the order in which they were staged. When they
  /// cannot be flushed, all are `temporaryNotWritten`. A file that is missing under its real name is
  /// `notExchanged`. The batch is empty afterwards.
  std::vector<Replacement> replace();

 private:
  struct Staged {
    std::string path;
    std::string temporary;
    Replacement result;
  };

  std::vector<Replacement> giveUp(const SystemError& reason);
  void flushDirectories();
  void keepDisplaced(Staged& file);
  void exchangeBack(Staged& file, const SystemError& reason);

  FileSystem& files_;
  std::vector<Staged> staged_;
};

/// The batch of one file.
Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership);

/// Puts a file with the content under the name, in place of any older one, in one step and without a backup.
/// When the call fails, the older file stays whole under its name (or there is none, as before) and no
/// temporary file is left; only when the disk also refuses to undo the exchange has the new content the name
/// and the older file the temporary one. A directory of that name is not replaced.
Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership);

}  // namespace tessard
