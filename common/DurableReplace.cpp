#include "common/DurableReplace.h"

#include <cerrno>
#include <functional>
#include <map>
#include <utility>

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

// Fails unless the file of that name, a displaced one, is the version. The time of its last change is not
// looked at: a new name and a link change that, too.
Result<void> expectVersion(FileSystem& files, std::string_view path, const FileVersion& version) {
  const auto is = files.attributes(path);
  if (!is) return is.error();
  const bool sameFile =
      version.isAnyOfContent || (is.value().device == version.device && is.value().inode == version.inode &&
                                 is.value().modified == version.modified);
  if (!sameFile || is.value().size != version.size) return changedMeanwhile();
  const auto content = files.readFile(path, version.size);
  if (!content) return content.error();
  const bool same = std::hash<std::string_view>()(content.value()) == version.digest;
  return same ? Result<void>() : Result<void>(changedMeanwhile());
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

FileVersion versionOf(const FileAttributes& before, std::string_view content) {
  const std::size_t digest = std::hash<std::string_view>()(content);
  return {before.device, before.inode, before.size, before.modified, before.changed, digest, false};
}

FileVersion versionOf(std::string_view content) {
  FileVersion version = versionOf({}, content);
  version.size = content.size();
  version.isAnyOfContent = true;
  return version;
}

SystemError changedMeanwhile() {
  return {ESTALE, "somebody else has changed it meanwhile, and that version is kept"};
}

bool isChangedMeanwhile(const SystemError& error) {
  return error.code() == ESTALE;
}

std::string temporaryPathFor(std::string_view path) {
  return fill("%@.tmp", {path});
}

std::string backupPathFor(std::string_view path) {
  return fill("%@.bak", {path});
}

ReplacementBatch::~ReplacementBatch() {
  for (const Staged& file : staged_) removeQuietly(files_, file.temporary);
}

Result<void> ReplacementBatch::stage(std::string_view path, std::string_view content,
                                     const FileOwnership& ownership, const std::optional<FileVersion>& read) {
  // The version that was read is a file. Without one this is the only look at what is there.
  if (const auto present = read ? SystemError(0) : files_.attributes(path);
      present && present.value().kind == FileAttributes::Kind::directory) {
    return SystemError(EISDIR);
  }
  std::string temporary = temporaryPathFor(path);
  if (auto made = files_.createFile(temporary, content, ownership, Flush::later); !made) return made;
  staged_.push_back(
      {std::string(path), std::move(temporary), read, {ReplaceOutcome::notExchanged, SystemError(0)}});
  return {};
}

std::vector<Replacement> ReplacementBatch::replace() {
  if (staged_.empty()) return {};
  std::vector<std::string> temporaries;
  temporaries.reserve(staged_.size());
  for (const Staged& file : staged_) temporaries.push_back(file.temporary);
  if (const auto flushed = files_.flush(temporaries); !flushed) return giveUp(flushed.error());
  for (Staged& file : staged_) exchange(file);
  flushDirectories();
  std::vector<Replacement> results;
  results.reserve(staged_.size());
  for (Staged& file : staged_) {
    if (file.result.outcome == ReplaceOutcome::replaced) keepDisplaced(file);
    results.push_back(file.result);
  }
  staged_.clear();
  return results;
}

void ReplacementBatch::exchange(Staged& file) {
  const auto exchanged = files_.exchange(file.temporary, file.path);
  file.result = exchanged ? Replacement{ReplaceOutcome::replaced, SystemError(0)}
                          : Replacement{ReplaceOutcome::notExchanged, exchanged.error()};
  if (!exchanged || !file.read) return;
  const auto expected = expectVersion(files_, file.temporary, *file.read);
  if (expected) return;
  exchangeBack(file, expected.error());
  if (!isChangedMeanwhile(expected.error()) || file.result.outcome != ReplaceOutcome::notExchanged) return;
  file.result.outcome = ReplaceOutcome::changedMeanwhile;
  removeQuietly(files_, file.temporary);
}

std::vector<Replacement> ReplacementBatch::giveUp(const SystemError& reason) {
  std::vector<Replacement> results(staged_.size(), {ReplaceOutcome::temporaryNotWritten, reason});
  for (const Staged& file : staged_) removeQuietly(files_, file.temporary);
  staged_.clear();
  return results;
}

// Files in a directory that cannot be flushed are exchanged back: their new names would not last.
void ReplacementBatch::flushDirectories() {
  std::map<std::string, std::vector<Staged*>> exchanged;
  for (Staged& file : staged_) {
    if (file.result.outcome == ReplaceOutcome::replaced) exchanged[directoryOf(file.path)].push_back(&file);
  }
  for (const auto& [directory, files] : exchanged) {
    const auto flushed = files_.syncDirectory(directory);
    if (flushed) continue;
    for (Staged* file : files) exchangeBack(*file, flushed.error());
    syncQuietly(files_, directory);
  }
}

void ReplacementBatch::keepDisplaced(Staged& file) {
  const auto kept = files_.rename(file.temporary, backupPathFor(file.path));
  if (kept) return;
  exchangeBack(file, kept.error());
  syncQuietly(files_, directoryOf(file.path));
}

void ReplacementBatch::exchangeBack(Staged& file, const SystemError& reason) {
  const bool back = files_.exchange(file.temporary, file.path).ok();
  file.result = {back ? ReplaceOutcome::notExchanged : ReplaceOutcome::notExchangedBack, reason};
}

Replacement replaceKeepingBackup(FileSystem& files, std::string_view path, std::string_view content,
                                 const FileOwnership& ownership) {
  ReplacementBatch batch(files);
  if (const auto staged = batch.stage(path, content, ownership); !staged) {
    return {ReplaceOutcome::temporaryNotWritten, staged.error()};
  }
  return batch.replace().front();
}

Result<void> writeAtomically(FileSystem& files, std::string_view path, std::string_view content,
                             const FileOwnership& ownership, const std::optional<FileVersion>& read) {
  const std::string temporary = temporaryPathFor(path);
  const std::string directory = directoryOf(path);
  if (auto made = files.createFile(temporary, content, ownership, Flush::now); !made) return made;
  auto put = files.exchange(temporary, path);
  if (!put && put.error().code() == ENOENT) {
    if (!read || read->inode == 0) return putUnderFreeName(files, temporary, path);
    put = changedMeanwhile();
  } else if (put) {
    if (read) put = expectVersion(files, temporary, *read);
    if (put) put = files.syncDirectory(directory);
    // A displaced directory cannot be removed like a file, and so comes back.
    if (put) put = files.remove(temporary);
    if (put) return put;
    if (!files.exchange(temporary, path)) return put;
    syncQuietly(files, directory);
  }
  removeQuietly(files, temporary);
  return put;
}

}  // namespace tessard
