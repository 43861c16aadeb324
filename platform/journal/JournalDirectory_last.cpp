#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "common/Format.h"
#include "platform/SystemCalls.h"
#include "platform/journal/JournalDirectory.h"
#include "platform/journal/JournalNames.h"

// The journal of the last change that can be undone by a request.

namespace tessard {

namespace {

FileTime changeTimeOf(const struct stat& status) {
  return {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

bool isSamePlace(const Result<JournalDirectory::OpenedDirectory>& directory, const std::string& path) {
  return directory && directory.value().path == path;
}

}  // namespace

Result<EndedJournal> JournalDirectory::last() {
  if (rootError_ != 0) return SystemError(rootError_);
  if (!home_ && !files_.exists(kJournalHome)) return SystemError(ENOENT);
  if (auto opened = openHome(); !opened) return opened.error();
  return EndedJournal::open(home_.get(), kLastJournal);
}

Result<void> JournalDirectory::forgetLast() {
  if (const auto journal = last(); !journal) {
    return journal.error().code() == ENOENT ? Result<void>() : Result<void>(journal.error());
  }
  if (auto removed = removeTree({home_.get(), kKeptJournal}); !removed) return removed;
  // In one step, as half a journal would tell of another change.
  auto renamed = resultOf(::renameat(home_.get(), kLastJournal.c_str(), home_.get(), kKeptJournal.c_str()));
  return renamed ? removeTree({home_.get(), kKeptJournal}) : renamed;
}

Result<std::string> JournalDirectory::versionNow(const EndedJournal::Note& note,
                                                 std::optional<FileTime> since) const {
  const auto directory = open(note.path.empty() ? "/" : note.path);
  if (!directory && mayPass(directory.error())) return directory.error();
  // Another directory stands there now, or none.
  if (!isSamePlace(directory, note.path)) return directory ? kUnknownVersion : kNoVersion;
  const NameIn file{directory.value().descriptor.get(), note.name};
  if (since) {
    const auto status = statusOf(file);
    if (status && changeTimeOf(status.value()) > *since) return kUnknownVersion;
  }
  return versionOf(file);
}

// Nobody but the kernel sets the time at which a file was last changed or renamed, so that whoever came after
// the journal had ended is found out.
Result<EndedJournal::Versions> JournalDirectory::versionsNow(const EndedJournal& journal) const {
  const auto ended = journal.named();
  if (!ended) return ended.error();
  EndedJournal::Versions versions;
  for (const EndedJournal::Note& note : journal.files()) {
    auto version = versionNow(note, ended.value());
    if (!version) return version.error();
    versions[fill("%@/%@", {note.path, note.name})] = std::move(version).value();
  }
  return versions;
}

Result<EndedJournal::Versions> JournalDirectory::versionsAfter(const EndedJournal& last) const {
  if (auto versions = last.versions()) return std::move(*versions);
  return versionsNow(last);
}

// A write of what was there already is no change that anybody would want to undo.
Result<bool> JournalDirectory::tellsOfDifference(const EndedJournal& journal,
                                                 const EndedJournal::Versions& after) const {
  bool differs = !journal.removed().empty();
  const auto read = journal.forEachAttributes([&](NameIn /*noted*/, const NotedAttributes& /*before*/) {
    differs = true;
    return Result<void>();
  });
  if (!read) return read.error();
  if (differs) return true;
  for (const EndedJournal::Note& note : journal.files()) {
    auto before = Result<std::string>(kNoVersion);
    if (note.present) {
      const auto mirror = journal.mirrorOf(note.path);
      if (!mirror) return mirror.error();
      before = versionOf({mirror.value().get(), note.name});
    }
    if (!before) return before.error();
    if (before.value() != after.at(fill("%@/%@", {note.path, note.name}))) return true;
  }
  return false;
}

// The older one goes before the newer takes its name, so that a crash between leaves the newer to be found.
void JournalDirectory::promote() {
  const auto journal = EndedJournal::open(home_.get(), kUndoableJournal);
  if (!journal) return;
  const auto renamed = [&](const std::string& from, const std::string& to) {
    return resultOf(::renameat(home_.get(), from.c_str(), home_.get(), to.c_str()));
  };
  // Once they are written the older journal may have been removed, which holds some of the same files.
  const auto versions = versionsAfter(journal.value());
  const auto differs =
      versions ? tellsOfDifference(journal.value(), versions.value()) : Result<bool>(versions.error());
  if (!removeTree({home_.get(), kKeptJournal})) return;
  if (differs && !differs.value()) {
    static_cast<void>(renamed(kUndoableJournal, kKeptJournal).ok());
    return;
  }
  // Without versions the time of the journal's name tells as much, as long as nobody touches the files.
  if (versions) static_cast<void>(journal.value().setVersions(versions.value()).ok());
  if (const auto gone = renamed(kLastJournal, kKeptJournal); !gone && gone.error().code() != ENOENT) return;
  static_cast<void>(renamed(kUndoableJournal, kLastJournal).ok());
}

}  // namespace tessard
