#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "common/DurableReplace.h"
#include "common/Format.h"
#include "platform/SystemCalls.h"
#include "platform/journal/FormerFiles.h"
#include "platform/journal/JournalingFileSystem.h"

// How the last change is undone by a request: as a change like any other, noted in a journal of its own,
// which then tells of the change that can be undone next. The journal of the last change stays whole until
// then.

namespace tessard {

namespace {

std::string pathOf(const EndedJournal::Note& note) {
  return fill("%@/%@", {note.path, note.name});
}

// What the journal cannot link it copies, so that this may be needed on the way back, too.
bool mayBeCopied(const SystemError& error) {
  return error.code() == EXDEV || error.code() == EMLINK || error.code() == EPERM ||
         error.code() == EOPNOTSUPP;
}

Result<void> expectVersion(NameIn file, const std::string& version) {
  const auto is = versionOf(file);
  if (!is) return is.error();
  return is.value() == version ? Result<void>() : Result<void>(changedMeanwhile());
}

}  // namespace

LastChange JournalingFileSystem::failedChange(const SystemError& reason) {
  log_.logError_source(fill("the last change cannot be undone: %@", {reason.description()}), "");
  return {LastChange::State::failed, {}};
}

LastChange JournalingFileSystem::lastChange() {
  const auto last = journal_.last();
  if (!last && last.error().code() == ENOENT) return {};
  if (!last) return failedChange(last.error());
  const auto after = journal_.versionsAfter(last.value());
  if (!after) return failedChange(after.error());
  auto changed = changedSince(last.value(), after.value());
  if (!changed) return failedChange(changed.error());
  if (!changed.value().empty()) return {LastChange::State::changedSince, std::move(changed).value()};
  LastChange change{LastChange::State::undoable, {}};
  for (const EndedJournal::Note& note : last.value().files()) change.files.push_back(pathOf(note));
  return change;
}

// Backups are the daemon's own copies and may have been made anew since.
Result<std::vector<std::string>> JournalingFileSystem::changedSince(const EndedJournal& last,
                                                                    const Versions& after) {
  std::vector<std::string> changed;
  for (const EndedJournal::Note& note : last.files()) {
    const auto version = after.find(pathOf(note));
    const auto now = journal_.versionNow(note, std::nullopt);
    if (!now) return now.error();
    if (version == after.end() || version->second != now.value()) changed.push_back(pathOf(note));
  }
  return changed;
}

LastChange JournalingFileSystem::undoLast() {
  if (!together_) return failedChange(SystemError(EINVAL));
  LastChange change = lastChange();
  if (change.state != LastChange::State::undoable) {
    fail();
    return change;
  }
  const auto last = journal_.last();
  const auto after = last ? journal_.versionsAfter(last.value()) : Result<Versions>(last.error());
  std::string path;
  const auto undone = after ? undo(last.value(), after.value(), path) : Result<void>(after.error());
  if (undone) {
    ++timesUndone_;
    return change;
  }
  fail();
  if (isChangedMeanwhile(undone.error())) return {LastChange::State::changedSince, {path}};
  return failedChange(undone.error());
}

Result<void> JournalingFileSystem::undo(const EndedJournal& last, const Versions& after, std::string& path) {
  for (const auto& [directory, attributes] : last.removed()) {
    path = directory;
    unsynced_.insert(directoryOf(path));
    auto made = createDirectory(path, {attributes.owner, attributes.group, attributes.permissions}, false);
    if (!made && made.error().code() != EEXIST) return made;
  }
  // What was made inside of a new directory goes before that itself.
  for (auto note = last.files().rbegin(); note != last.files().rend(); ++note) {
    path = pathOf(*note);
    auto undone = undoFile(last, *note, after.at(path));
    if (undone) undone = undoBeside(last, *note);
    if (!undone) return undone;
  }
  // A file that is back under its name may be the one that has another name now: it is compared before.
  return last.forEachAttributes(
      [&](NameIn noted, const NotedAttributes& before) { return undoAttributes(noted, before); });
}

Result<void> JournalingFileSystem::undoFile(const EndedJournal& last, const EndedJournal::Note& note,
                                            const std::string& after) {
  const auto place = placeOf(pathOf(note));
  if (!place || place->path != note.path) {
    // In a directory that is not there nothing is absent as it should be.
    return note.present ? Result<void>(changedMeanwhile()) : Result<void>();
  }
  unsynced_.insert(note.path.empty() ? "/" : note.path);
  if (!note.present) return undoMade(*place, after);
  if (!isNoted(*place)) {
    if (auto noted = remember(*place); !noted) return noted;
  }
  const std::string fresh = temporaryPathFor(note.name);
  if (auto linked = linkBack(last, note, *place, fresh); !linked) return linked;
  const bool exchanges = after != kNoVersion;
  auto put = resultOf(::renameat2(place->directory, fresh.c_str(), place->directory, note.name.c_str(),
                                  exchanges ? RENAME_EXCHANGE : RENAME_NOREPLACE));
  if (!put && (put.error().code() == ENOENT || put.error().code() == EEXIST)) put = changedMeanwhile();
  if (put && exchanges) {
    put = expectVersion({place->directory, fresh}, after);
    if (!put) {
      static_cast<void>(
          ::renameat2(place->directory, fresh.c_str(), place->directory, note.name.c_str(), RENAME_EXCHANGE));
      leave(pathOf(note));
    }
  }
  const auto removed = resultOf(::unlinkat(place->directory, fresh.c_str(), 0));
  return put && exchanges ? removed : put;
}

// Where the same file is under both names already a rename would do nothing, and leave both.
Result<void> JournalingFileSystem::linkBack(const EndedJournal& last, const EndedJournal::Note& note,
                                            const Place& place, const std::string& name) {
  const auto mirror = last.mirrorOf(note.path);
  if (!mirror) return mirror.error();
  const NameIn former{mirror.value().get(), note.name};
  if (auto removed = removeTree({place.directory, name}); !removed) return removed;
  if (::linkat(former.directory, former.name.c_str(), place.directory, name.c_str(), 0) == 0) return {};
  const SystemError reason = SystemError::last();
  return mayBeCopied(reason) ? copyAcross(former, {place.directory, name}) : Result<void>(reason);
}

Result<void> JournalingFileSystem::undoMade(const Place& place, const std::string& after) {
  if (after == kNoVersion) return {};
  const auto status = statusOf({place.directory, place.name});
  if (!status) return status.error().code() == ENOENT ? Result<void>(changedMeanwhile()) : status.error();
  if (S_ISDIR(status.value().st_mode)) return removeDirectory(place);
  if (auto expected = expectVersion({place.directory, place.name}, after); !expected) return expected;
  return remove(fill("%@/%@", {place.path, place.name}));
}

Result<void> JournalingFileSystem::removeDirectory(const Place& place) {
  const auto status = statusOf({place.directory, place.name});
  if (!status) return status.error();
  if (auto noted = journal_.rememberDirectory(place, status.value()); !noted) return noted;
  const auto removed = resultOf(::unlinkat(place.directory, place.name.c_str(), AT_REMOVEDIR));
  directories_.erase(fill("%@/%@", {place.path, place.name}));
  // Somebody has put something into it.
  return removed || removed.error().code() == ENOTEMPTY ? Result<void>() : removed;
}

Result<void> JournalingFileSystem::undoBeside(const EndedJournal& last, const EndedJournal::Note& file) {
  for (const std::string& name : namesBeside(file.name)) {
    const std::string path = fill("%@/%@", {file.path, name});
    const auto place = placeOf(path);
    if (!place || place->path != file.path) continue;
    const EndedJournal::Note* note = last.find(file.path, name);
    if (!note || !note->present) {
      auto removed = remove(path);
      if (!removed && removed.error().code() != ENOENT && removed.error().code() != EISDIR) return removed;
      continue;
    }
    if (!isNoted(*place)) {
      if (auto noted = remember(*place); !noted) return noted;
    }
    // Of one that is to be as it is there is nothing to do, and a temporary has no further name beside it.
    if (auto linked = linkBack(last, *note, *place, name); !linked) return linked;
  }
  return {};
}

Result<void> JournalingFileSystem::undoAttributes(NameIn noted, const NotedAttributes& before) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlinkat(noted.directory, noted.name.c_str(), target.data(), target.size());
  std::optional<Place> place = Place{noted.directory, "", noted.name};
  if (length >= 0) {
    target.resize(static_cast<std::size_t>(length));
    place = placeOf(target);
  }
  if (!place) return {};
  const NameIn file{place->directory, place->name};
  const auto status = statusOf(file);
  if (!status) return status.error().code() == ENOENT ? Result<void>() : status.error();
  if (auto remembered = journal_.rememberAttributes(*place, status.value()); !remembered) return remembered;
  return giveBack(file, before);
}

std::unique_ptr<FileSystem> JournalingFileSystem::filesBeforeLast() {
  auto last = journal_.last();
  if (!last) return nullptr;
  return std::make_unique<FormerFiles>(behind_, journal_, std::move(last).value());
}

}  // namespace tessard
