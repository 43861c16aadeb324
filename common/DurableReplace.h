#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

/// Which version of a file was read: told by the file itself and by its content, as a change may leave times
/// as they are. One without a file (inode 0) stands for no file.
struct FileVersion {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  FileTime modified;
  FileTime changed;  ///< tells nothing of a file that was renamed or linked since
  std::uint64_t digest = 0;
  bool isAnyOfContent = false;  ///< whatever file has that size and digest
};

/// The version with these attributes, looked at before it was read, and this content.
FileVersion versionOf(const FileAttributes& before, std::string_view content);

/// The file with these attributes, whose content is that of the version.
FileVersion versionOf(const FileAttributes& file, const FileVersion& content);

/// Any file with this content, for who has just written it: an edit may have come before any look at it.
FileVersion versionOf(std::string_view content);

/// Whether a file with these attributes is the very file of that version, and was not written to since, as
/// far as its times tell. A change within a tick of the file system's clock may leave them as they are.
bool isSameFile(const FileVersion& version, const FileAttributes& file);

/// What a write fails with (code ESTALE) that finds another version than the one that was read, or none.
SystemError changedMeanwhile();
bool isChangedMeanwhile(const SystemError& error);

/// How far a replacement came.
enum class ReplaceOutcome {
  replaced,             ///< the new content is on disk under the real name
  temporaryNotWritten,  ///< the file is as it was and no temporary file is left
  notExchanged,         ///< the file is as it was; the new content waits in the temporary file
  notExchangedBack,     ///< the new content has the real name, the previous version the temporary one
  changedMeanwhile,     ///< the file is as somebody else has made it since it was read; no temporary is left
};

struct Replacement {
  ReplaceOutcome outcome;
  SystemError error;       ///< the reason; code 0 when replaced
  FileAttributes is = {};  ///< of the new file as it was made; when replaced
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
/// The contents need not be in memory together: `stage` one after the other, then `replace` all. What is
/// staged is written when there is enough of it, at the latest by `replace`.
class ReplacementBatch {
 public:
  /// The file system is borrowed.
  explicit ReplacementBatch(FileSystem& files) : files_(files) {}
  ReplacementBatch(const ReplacementBatch&) = delete;
  ReplacementBatch& operator=(const ReplacementBatch&) = delete;
  /// What was written and not replaced is removed.
  ~ReplacementBatch();

  /// Takes the new content of a file. A directory is not replaced: `temporaryNotWritten`, EISDIR.
  /// `read`: the version that the new content comes from; any other is `changedMeanwhile`, and one that
  /// cannot be told is `notExchanged`. Without it every version is replaced.
  void stage(std::string_view path, std::string content, const FileOwnership& ownership,
             const std::optional<FileVersion>& read = std::nullopt);

  /// Replaces the staged files; one outcome for each, in the order in which they were staged. One that could
  /// not be written is `temporaryNotWritten` and keeps none of the others from being replaced; when they
  /// cannot be flushed, all are. A file that is missing under its real name is `notExchanged`. The batch is
  /// empty afterwards.
  std::vector<Replacement> replace();

 private:
  struct Staged {
    std::string path;
    std::string temporary;
    std::optional<FileVersion> read;
    /// Before the exchange: `notExchanged` without an error.
    Replacement result = {ReplaceOutcome::notExchanged, SystemError(0)};
    bool isWritten = false;
    bool isReady() const { return result.outcome == ReplaceOutcome::notExchanged; }
  };

  void writeWaiting();
  void giveUp(const SystemError& reason);
  void exchange(std::span<Staged> files);
  void checkDisplaced(std::span<Staged> files);
  void flushDirectories();
  void keepDisplaced(Staged& file);
  void exchangeBack(Staged& file, const SystemError& reason);

  FileSystem& files_;
  std::vector<Staged> staged_;
  std::vector<NewFile> waiting_;  // not written yet: the last of the staged ones that are ready
  std::size_t waitingBytes_ = 0;
};

/// The batch of one file.
Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership);

/// Puts a file with the content under the name, in place of any older one, in one step and without a backup.
/// When the call fails, the older file stays whole under its name (or there is none, as before) and no
/// temporary file is left; only when the disk also refuses to undo the exchange has the new content the name
/// and the older file the temporary one. A directory of that name is not replaced. `read`: as for a batch;
/// the call fails with `changedMeanwhile`, also when the file that was read is gone.
Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership,
                             const std::optional<FileVersion>& read = std::nullopt);

}  // namespace tessard
