#include "common/DurableReplace.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "common/Digest.h"
#include "common/Format.h"

namespace tessard {

namespace {

// Contents that wait in memory to be written in one go.
constexpr std::size_t kWrittenTogether = std::size_t{2} * 1024 * 1024;

// Files that have changed names before the displaced ones are looked at: few, as an edit of the new version
// in between is lost where the displaced one comes back.
constexpr std::size_t kExchangedTogether = 64;

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

// Fails unless what was found is the version. The time of its last change is not looked at: a new name and a
// link change that, too.
Result<void> isVersion(const Result<FileFingerprint>& found, const FileVersion& version) {
  if (!found) {
    // Longer than the version, or no file at all.
    const bool isAnother = found.error().code() == EFBIG || found.error().code() == EINVAL;
    return isAnother ? changedMeanwhile() : found.error();
  }
  const FileAttributes& file = found.value().attributes;
  const bool sameFile = version.isAnyOfContent ? file.size == version.size : isSameFile(version, file);
  const bool same = sameFile && found.value().digest == version.digest;
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
  return {before.device,  before.inode,      before.size, before.modified,
          before.changed, digestOf(content), false};
}

FileVersion versionOf(const FileAttributes& file, const FileVersion& content) {
  return {file.device,           file.inode, file.size, file.modified, file.changed, content.digest,
          content.isAnyOfContent};
}

FileVersion versionOf(std::string_view content) {
  FileVersion version = versionOf({}, content);
  version.size = content.size();
  version.isAnyOfContent = true;
  return version;
}

bool isSameFile(const FileVersion& version, const FileAttributes& file) {
  return file.device == version.device && file.inode == version.inode && file.size == version.size &&
         file.modified == version.modified;
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
  for (const Staged& file : staged_) {
    if (file.isWritten) removeQuietly(files_, file.temporary);
  }
}

void ReplacementBatch::stage(std::string_view path, std::string content, const FileOwnership& ownership,
                             const std::optional<FileVersion>& read) {
  Staged& file = staged_.emplace_back(Staged{std::string(path), temporaryPathFor(path), read});
  // The version that was read is a file. Without one this is the only look at what is there.
  if (const auto present = read ? SystemError(0) : files_.attributes(path);
      present && present.value().kind == FileAttributes::Kind::directory) {
    file.result = {ReplaceOutcome::temporaryNotWritten, SystemError(EISDIR)};
    return;
  }
  waitingBytes_ += content.size();
  waiting_.push_back({file.temporary, std::move(content), ownership});
  if (waitingBytes_ >= kWrittenTogether) writeWaiting();
}

void ReplacementBatch::writeWaiting() {
  const auto made = files_.createFiles(waiting_);
  auto result = made.begin();
  for (Staged& file : staged_) {
    if (file.isWritten || !file.isReady()) continue;
    file.isWritten = result->ok();
    file.result = result->ok() ? Replacement{ReplaceOutcome::notExchanged, SystemError(0), result->value()}
                               : Replacement{ReplaceOutcome::temporaryNotWritten, result->error()};
    ++result;
  }
  waiting_.clear();
  waitingBytes_ = 0;
}

std::vector<Replacement> ReplacementBatch::replace() {
  if (!waiting_.empty()) writeWaiting();
  std::vector<std::string> temporaries;
  temporaries.reserve(staged_.size());
  for (const Staged& file : staged_) {
    if (file.isReady()) temporaries.push_back(file.temporary);
  }
  if (!temporaries.empty()) {
    if (const auto flushed = files_.flush(temporaries); !flushed) giveUp(flushed.error());
  }
  for (std::size_t at = 0; at < staged_.size(); at += kExchangedTogether) {
    exchange(std::span(staged_).subspan(at, std::min(kExchangedTogether, staged_.size() - at)));
  }
  flushDirectories();
  std::vector<Replacement> results;
  results.reserve(staged_.size());
  for (Staged& file : staged_) {
    if (file.result.outcome == ReplaceOutcome::replaced) keepDisplaced(file);
    results.push_back(std::move(file.result));
  }
  staged_.clear();
  return results;
}

void ReplacementBatch::exchange(std::span<Staged> files) {
  for (Staged& file : files) {
    if (!file.isReady()) continue;
    const auto exchanged = files_.exchange(file.temporary, file.path);
    if (exchanged) {
      file.result.outcome = ReplaceOutcome::replaced;
    } else {
      file.result.error = exchanged.error();
    }
  }
  checkDisplaced(files);
}

void ReplacementBatch::checkDisplaced(std::span<Staged> files) {
  std::vector<Staged*> checked;
  std::vector<std::string> displaced;
  std::uint64_t longest = 0;
  for (Staged& file : files) {
    if (file.result.outcome != ReplaceOutcome::replaced || !file.read) continue;
    checked.push_back(&file);
    displaced.push_back(file.temporary);
    longest = std::max(longest, file.read->size);
  }
  if (checked.empty()) return;
  const auto found = files_.fingerprints(displaced, longest);
  for (std::size_t i = 0; i < checked.size(); ++i) {
    Staged& file = *checked[i];
    const auto expected = isVersion(found[i], *file.read);
    if (expected) continue;
    exchangeBack(file, expected.error());
    if (!isChangedMeanwhile(expected.error()) || file.result.outcome != ReplaceOutcome::notExchanged)
      continue;
    file.result.outcome = ReplaceOutcome::changedMeanwhile;
    removeQuietly(files_, file.temporary);
  }
}

void ReplacementBatch::giveUp(const SystemError& reason) {
  for (Staged& file : staged_) {
    if (!file.isReady()) continue;
    file.result = {ReplaceOutcome::temporaryNotWritten, reason};
    removeQuietly(files_, file.temporary);
  }
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
  batch.stage(path, std::string(content), ownership);
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
    if (read) put = isVersion(files.fingerprints({temporary}, read->size).front(), *read);
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
