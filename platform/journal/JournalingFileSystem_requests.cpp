#include <cerrno>

#include "common/Format.h"
#include "platform/journal/JournalingFileSystem.h"

// When changes are kept, and when they are put back.

namespace tessard {

JournalDirectory::Undone JournalingFileSystem::recover() {
  auto undone = journal_.recover();
  undoUnfinished_ = !undone.problems.empty();
  return undone;
}

void JournalingFileSystem::startRequest() {
  inRequest_ = true;
  posix_.holdDirectories();
  together_ = false;
  failed_ = false;
  if (!undoUnfinished_) return;
  // What cannot be read now may be readable later, so the journal is looked for afresh.
  reportUndone(journal_.isEmpty() ? journal_.recover() : journal_.undo());
}

bool JournalingFileSystem::finishRequest(bool failed) {
  // Changes that belong together and were not ended have failed.
  const bool kept = !failed && !together_ && keepNow();
  if (!kept) undoNow();
  together_ = false;
  inRequest_ = false;
  directories_.clear();
  posix_.releaseDirectories();
  posix_.endEarlyWriting();
  return kept;
}

void JournalingFileSystem::tidyUp() {
  if (!hasKept_) return;
  journal_.tidyUp();
  hasKept_ = false;
  undoableWaits_ = false;
}

Result<void> JournalingFileSystem::forgetLast() {
  tidyUp();
  return journal_.forgetLast();
}

void JournalingFileSystem::keep() {
  if (!together_ && !keepNow()) undoNow();
}

void JournalingFileSystem::begin() {
  keep();
  // An undoable change of the same request would lose its journal to the next one, which may change nothing.
  if (undoableWaits_) tidyUp();
  together_ = true;
  failed_ = false;
}

void JournalingFileSystem::fail() {
  failed_ = together_;
}

bool JournalingFileSystem::end() {
  return endTogether(false);
}

bool JournalingFileSystem::endUndoably() {
  return endTogether(true);
}

bool JournalingFileSystem::endTogether(bool undoable) {
  together_ = false;
  if (!failed_ && keepNow(undoable)) return true;
  if (failed_ && !journal_.isEmpty()) {
    log_.logError_source("not everything could be written: every file is as it was before", "");
  }
  undoNow();
  return false;
}

void JournalingFileSystem::leave(std::string_view path) {
  if (!inRequest_) return;
  const auto place = placeOf(path);
  if (!place || journal_.isEmpty()) return;
  if (const auto forgotten = journal_.forget(place->path, place->name); !forgotten) {
    log_.logError_source(
        fill("\"%@\" may lose somebody's changes: %@", {path, forgotten.error().description()}), "");
  }
}

bool JournalingFileSystem::keepNow(bool undoable) {
  // While an undo is unfinished nothing was changed, and its journal is still needed.
  if (!inRequest_ || undoUnfinished_) return true;
  const auto last = makeLast(undoable);
  if (!last) {
    log_.logError_source(fill("the changes of the request cannot be kept: %@", {last.error().description()}),
                         "");
    return false;
  }
  undoableWaits_ = undoableWaits_ || undoable;
  forgetNotes();
  return true;
}

// Contents, then names and the end of the journal: what is kept is on disk.
Result<void> JournalingFileSystem::makeLast(bool undoable) {
  if (!unflushed_.empty()) {
    if (auto flushed = behind_.flush({unflushed_.begin(), unflushed_.end()}); !flushed) return flushed;
    unflushed_.clear();
  }
  hasKept_ = hasKept_ || !journal_.isEmpty();
  const auto makeNamesLast = [this]() -> Result<void> {
    for (const std::string& directory : unsynced_) {
      auto synced = behind_.syncDirectory(directory);
      // A directory that is gone has no names left.
      if (!synced && synced.error().code() != ENOENT) return synced;
    }
    unsynced_.clear();
    return {};
  };
  return journal_.keep(makeNamesLast, undoable);
}

void JournalingFileSystem::undoNow() {
  unflushed_.clear();
  unsynced_.clear();
  forgetNotes();
  if (inRequest_) reportUndone(journal_.undo());
}

void JournalingFileSystem::reportUndone(const JournalDirectory::Undone& undone) {
  undoUnfinished_ = !undone.problems.empty();
  for (const std::string& problem : undone.problems) log_.logError_source(problem, "");
  if (undone.files == 0) return;
  ++timesUndone_;
  log_.logWarning_source(
      fill("the request has failed: %ld changed files are as they were before it", {undone.files}), "");
}

}  // namespace tessard
