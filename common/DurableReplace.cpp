#include "common/DurableReplace.h"

#include "common/Format.h"

namespace tessard {

std::string temporaryPathFor(std::string_view path) {
  return fill("%@.tmp", {path});
}

std::string backupPathFor(std::string_view path) {
  return fill("%@.bak", {path});
}

Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership) {
  const std::string temporary = temporaryPathFor(path);
  if (const auto made = files.createFile(temporary, content, ownership); !made) {
    return {ReplaceOutcome::temporaryNotWritten, made.error()};
  }
  if (const auto exchanged = files.exchange(temporary, path); !exchanged) {
    return {ReplaceOutcome::notExchanged, exchanged.error()};
  }
  auto kept = files.rename(temporary, backupPathFor(path));
  if (kept) kept = files.syncDirectory(directoryOf(path));
  if (kept) return {ReplaceOutcome::replaced, SystemError(0)};
  const auto undone = files.exchange(temporary, path);
  return {ReplaceOutcome::notExchanged, undone ? kept.error() : undone.error()};
}

Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership) {
  const std::string temporary = temporaryPathFor(path);
  if (auto made = files.createFile(temporary, content, ownership); !made) return made;
  if (auto renamed = files.rename(temporary, path); !renamed) {
    // The reason of the failed rename is what the caller needs; a temporary that cannot be removed is
    // overwritten by the next attempt.
    static_cast<void>(files.remove(temporary).ok());
    return renamed;
  }
  return files.syncDirectory(directoryOf(path));
}

}  // namespace tessard
