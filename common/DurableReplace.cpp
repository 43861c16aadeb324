#include "common/DurableReplace.h"

#include <cerrno>
#include <functional>

#include "common/Format.h"

namespace tessard {

namespace {

// Makes what was just renamed last, as far as that is possible: an operation that has failed already must be
// undone even on a disk that can no longer be flushed.
void syncQuietly(FileSystem& files, std::string_view directory) {
  static_cast<void>(files.syncDirectory(directory).ok());
}

// A temporary file that cannot be removed is overwritten by the next attempt; what made the removal necessary
// is what the caller must know.
void removeQuietly(FileSystem& files, std::string_view path) {
  static_cast<void>(files.remove(path).ok());
}

// The new content has just got the real name, and the displaced version the temporary one. Makes that last
// and disposes of the displaced version, or exchanges the two back.
Replacement settle(FileSystem& files, const std::string& temporary, std::string_view path,
                   const std::function<Result<void>()>& dispose) {
  const std::string directory = directoryOf(path);
  auto done = files.syncDirectory(directory);
  if (done) done = dispose();
  if (done) return {ReplaceOutcome::replaced, SystemError(0)};
  if (!files.exchange(temporary, path)) return {ReplaceOutcome::notExchangedBack, done.error()};
  syncQuietly(files, directory);
  return {ReplaceOutcome::notExchanged, done.error()};
}

Result<void> putUnderFreeName(FileSystem& files, const std::string& temporary, std::string_view path) {
  auto done = files.rename(temporary, path);
  if (!done) {
    removeQuietly(files, temporary);
    return done;
  }
  done = files.syncDirectory(directoryOf(path));
  if (!done) removeQuietly(files, path);
  return done;
}

}  // namespace

std::string temporaryPathFor(std::string_view path) {
  return fill("%@.tmp", {path});
}

std::string backupPathFor(std::string_view path) {
  return fill("%@.bak", {path});
}

Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership) {
  const std::string temporary = temporaryPathFor(path);
  if (const auto present = files.attributes(path);
      present && present.value().kind == FileAttributes::Kind::directory) {
    return {ReplaceOutcome::temporaryNotWritten, SystemError(EISDIR)};
  }
  if (const auto made = files.createFile(temporary, content, ownership); !made) {
    return {ReplaceOutcome::temporaryNotWritten, made.error()};
  }
  if (const auto exchanged = files.exchange(temporary, path); !exchanged) {
    return {ReplaceOutcome::notExchanged, exchanged.error()};
  }
  return settle(files, temporary, path, [&] { return files.rename(temporary, backupPathFor(path)); });
}

Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership) {
  const std::string temporary = temporaryPathFor(path);
  if (auto made = files.createFile(temporary, content, ownership); !made) return made;
  auto put = files.exchange(temporary, path);
  if (!put && put.error().code() == ENOENT) return putUnderFreeName(files, temporary, path);
  if (put) {
    // A displaced directory cannot be removed like a file, and so comes back.
    const auto settled = settle(files, temporary, path, [&] { return files.remove(temporary); });
    if (settled.outcome == ReplaceOutcome::replaced) return {};
    put = settled.error;
    if (settled.outcome == ReplaceOutcome::notExchangedBack) return put;
  }
  removeQuietly(files, temporary);
  return put;
}

}  // namespace tessard
