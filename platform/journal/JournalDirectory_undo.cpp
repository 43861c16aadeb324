#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <vector>

#include "common/Format.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"
#include "platform/journal/JournalDirectory.h"
#include "platform/journal/JournalNames.h"

// How everything is put back. Each step is done for good before the note of it is removed, so that an undo
// that is cut off itself is carried on by the next.

namespace tessard {

namespace {

// The name of a copy until it is complete.
const std::string kCopyBack = ".tessardd-undo";

// Where something is put back no link is followed: whoever can write in a directory on the way could have put
// one there meanwhile.
Result<FileDescriptor> openWithoutLinks(int root, const std::string& path) {
  return openResolving(root, path.empty() ? "/" : path, O_RDONLY | O_DIRECTORY,
                       RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS);
}

Result<void> removeNote(NameIn note) {
  return resultOf(::unlinkat(note.directory, note.name.c_str(), 0));
}

bool isSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Puts the noted version under the name, in one step, whatever file stands there.
Result<void> putBack(NameIn noted, NameIn target) {
  const char* name = target.name.c_str();
  if (::renameat(noted.directory, noted.name.c_str(), target.directory, name) == 0) return {};
  if (errno != EXDEV) return SystemError::last();
  const NameIn copy{target.directory, kCopyBack};
  if (auto removed = removeTree(copy); !removed) return removed;
  if (auto copied = copyAcross(noted, copy); !copied) return copied;
  return resultOf(::renameat(copy.directory, copy.name.c_str(), target.directory, name));
}

}  // namespace

/// What an undo has met so far.
struct JournalDirectory::Restoring {
  Undone& undone;
  bool keepsReplaced;
  bool besideFiles = false;  // whether it is the turn of temporaries and backups

  void problem(const std::string& path, const SystemError& reason) {
    undone.problems.push_back(fill("\"%@\" cannot be put back: %@", {path, reason.description()}));
  }
};

JournalDirectory::Undone JournalDirectory::undo() {
  Undone undone;
  if (isEmpty()) return undone;
  // The next start does not find a journal whose end could be neither finished nor taken back, and must not
  // find an undo half done without it.
  if (const auto renamed = name_ == kOpenJournal ? Result<void>() : rename(kOpenJournal); !renamed) {
    undone.problems.push_back(
        fill("the journal in \"%@\" cannot be used: %@", {kJournalHome, renamed.error().description()}));
    return undone;
  }
  restoreAll(false, undone);
  if (!undone.problems.empty()) return undone;
  if (const auto retired = retire(kKeptJournal); !retired) {
    undone.problems.push_back(
        fill("the journal in \"%@\" cannot be removed: %@", {kJournalHome, retired.error().description()}));
    return undone;
  }
  static_cast<void>(removeTree({home_.get(), kKeptJournal}).ok());
  return undone;
}

JournalDirectory::Undone JournalDirectory::recover() {
  Undone undone;
  if (rootError_ != 0) return undone;
  const auto there = isThere(files_, kJournalHome);
  if (there && !there.value()) return undone;
  auto prepared = there ? openHome() : there.error();
  if (prepared) prepared = removeTree({home_.get(), kKeptJournal});
  if (prepared) {
    auto journal = openDirectory({home_.get(), kOpenJournal});
    if (!journal && journal.error().code() == ENOENT) {
      tidyUp();
      return undone;
    }
    prepared = journal ? Result<void>() : Result<void>(journal.error());
    if (journal) open_ = std::move(journal).value();
  }
  if (!prepared) {
    undone.problems.push_back(
        fill("the journal in \"%@\" cannot be read: %@", {kJournalHome, prepared.error().description()}));
    return undone;
  }
  undone.found = true;
  restoreAll(true, undone);
  if (!undone.problems.empty()) return undone;
  if (const auto retired = retire(kUndoneJournal); !retired) {
    undone.problems.push_back(
        fill("the journal in \"%@\" cannot be removed: %@", {kJournalHome, retired.error().description()}));
  }
  tidyUp();
  return undone;
}

void JournalDirectory::restoreAll(bool keepsReplaced, Undone& undone) {
  Restoring restoring{undone, keepsReplaced};
  restoreDirectories(restoring);
  // Attributes before files, while the noted versions can still be reached through the journal alone.
  restoreAttributes(restoring);
  // Temporaries and backups last: as long as a file is noted, that they are not means that there were none.
  for (const bool besideFiles : {false, true}) {
    // A file that could not be put back is still noted, and so must be what was beside it.
    if (besideFiles && !undone.problems.empty()) return;
    restoring.besideFiles = besideFiles;
    for (const char* kind : {kPresent, kAbsent}) {
      const auto tree = openDirectory({open_.get(), kind});
      if (tree) {
        restoreTree(kind, tree.value().get(), "", restoring);
      } else if (tree.error().code() != ENOENT) {
        restoring.problem(kind, tree.error());
      }
    }
  }
}

void JournalDirectory::restoreDirectories(Restoring& restoring) {
  const auto journal = EndedJournal::open(home_.get(), kOpenJournal);
  if (!journal) return restoring.problem(kRemoved, journal.error());
  for (const auto& [path, attributes] : journal.value().removed()) {
    const auto parent = openWithoutLinks(root_.get(), directoryOf(path));
    const std::string name = lastPathComponent(path);
    auto made = parent ? Result<void>() : Result<void>(parent.error());
    if (made && ::mkdirat(parent.value().get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
      made = SystemError::last();
    }
    if (made) made = giveBack({parent.value().get(), name}, attributes);
    if (made) made = resultOf(uninterrupted([&] { return ::fsync(parent.value().get()); }));
    if (!made) restoring.problem(path, made.error());
  }
}

void JournalDirectory::restoreAttributes(Restoring& restoring) {
  const auto all = openDirectory({open_.get(), kAttributes});
  if (!all) return;
  const auto kinds = entriesOf(all.value().get());
  if (!kinds) return restoring.problem(kAttributes, kinds.error());
  for (const DirectoryEntry& kind : kinds.value()) {
    const auto attributes = attributesIn(kind.name);
    const auto mirror = openDirectory({all.value().get(), kind.name});
    const auto notes = mirror ? entriesOf(mirror.value().get()) : mirror.error();
    if (!attributes || !notes) continue;
    for (const DirectoryEntry& note : notes.value()) {
      const NameIn noted{mirror.value().get(), note.name};
      const auto given = giveBackNoted(noted, *attributes);
      if (given && removeNote(noted)) continue;
      restoring.problem(kind.name, given ? SystemError::last() : given.error());
    }
  }
}

Result<void> JournalDirectory::giveBackNoted(NameIn noted, const NotedAttributes& attributes) const {
  std::string path(PATH_MAX, '\0');
  const ssize_t length = ::readlinkat(noted.directory, noted.name.c_str(), path.data(), path.size());
  if (length < 0) return giveBack(noted, attributes);
  path.resize(static_cast<std::size_t>(length));
  const auto directory = openWithoutLinks(root_.get(), directoryOf(path));
  if (!directory) return directory.error().code() == ENOENT ? Result<void>() : directory.error();
  auto given = giveBack({directory.value().get(), lastPathComponent(path)}, attributes);
  return !given && given.error().code() == ENOENT ? Result<void>() : given;
}

void JournalDirectory::restoreTree(const std::string& kind, int mirror, const std::string& path,
                                   Restoring& restoring) {
  const auto notes = entriesOf(mirror);
  if (!notes) return restoring.problem(path, notes.error());
  // Directories first: what was made in a new directory goes before that itself.
  std::vector<std::string> files;
  for (const DirectoryEntry& note : notes.value()) {
    if (!note.isDirectory) {
      if (restoring.besideFiles != fileBeside(note.name).empty()) files.push_back(note.name);
      continue;
    }
    const auto inner = openDirectory({mirror, note.name});
    const std::string innerPath = fill("%@/%@", {path, nameOfMirror(note.name)});
    if (inner) {
      restoreTree(kind, inner.value().get(), innerPath, restoring);
    } else {
      restoring.problem(innerPath, inner.error());
    }
  }
  if (files.empty()) return;
  const auto target = openWithoutLinks(root_.get(), path);
  if (!target) {
    // Where there is no directory, nothing is absent as it should be.
    if (kind != kAbsent || target.error().code() != ENOENT) restoring.problem(path, target.error());
    return;
  }
  for (const std::string& name : files) {
    const auto restored = restoreNoted(kind, {mirror, name}, target.value().get(), path, restoring);
    if (!restored) restoring.problem(fill("%@/%@", {path, name}), restored.error());
  }
  if (const auto flushed = resultOf(uninterrupted([&] { return ::fsync(target.value().get()); })); !flushed) {
    restoring.problem(path, flushed.error());
  }
}

Result<void> JournalDirectory::restoreNoted(const std::string& kind, NameIn noted, int target,
                                            const std::string& path, Restoring& restoring) {
  if (!restoring.besideFiles) {
    if (auto removed = removeUnnotedBeside(noted, target, path, restoring); !removed) return removed;
  }
  return kind == kPresent ? restorePresent(noted, target, path, restoring)
                          : restoreAbsent(noted, target, path, restoring);
}

Result<void> JournalDirectory::removeUnnotedBeside(NameIn noted, int target, const std::string& path,
                                                   Restoring& restoring) {
  const auto present = mirrorOf(kPresent, path);
  if (!present) return present.error();
  for (const std::string& beside : namesBeside(noted.name)) {
    const auto note = statusOf({present.value(), beside});
    if (note) continue;
    if (note.error().code() != ENOENT) return note.error();
    const auto is = statusOf({target, beside});
    // Directories are not noted.
    if (!is || S_ISDIR(is.value().st_mode)) continue;
    if (auto removed = removeMade({target, beside}, path, restoring); !removed) return removed;
  }
  return {};
}

Result<void> JournalDirectory::removeMade(NameIn current, const std::string& path, Restoring& restoring) {
  if (restoring.keepsReplaced) {
    if (auto kept = keepReplaced(current, path); !kept) return kept;
  }
  if (::unlinkat(current.directory, current.name.c_str(), 0) != 0) return SystemError::last();
  ++restoring.undone.files;
  return {};
}

Result<void> JournalDirectory::restorePresent(NameIn noted, int target, const std::string& path,
                                              Restoring& restoring) {
  const NameIn current{target, noted.name};
  const auto was = statusOf(noted);
  const auto is = statusOf(current);
  if (!was) return was.error();
  if (is && isSame(was.value(), is.value())) return removeNote(noted);
  if (is && restoring.keepsReplaced) {
    if (auto kept = keepReplaced(current, path); !kept) return kept;
  }
  if (auto back = putBack(noted, current); !back) return back;
  ++restoring.undone.files;
  // A copy is still there.
  const auto removed = removeNote(noted);
  return removed || removed.error().code() == ENOENT ? Result<void>() : removed;
}

Result<void> JournalDirectory::restoreAbsent(NameIn noted, int target, const std::string& path,
                                             Restoring& restoring) {
  const NameIn current{target, noted.name};
  const auto is = statusOf(current);
  if (is && S_ISDIR(is.value().st_mode)) {
    // Somebody may have put something into it; then it stays.
    if (::unlinkat(target, current.name.c_str(), AT_REMOVEDIR) == 0) ++restoring.undone.files;
  } else if (is) {
    if (auto removed = removeMade(current, path, restoring); !removed) return removed;
  }
  return removeNote(noted);
}

// A link, or nothing where none can be made: what the daemon wrote before it died is seldom missed.
Result<void> JournalDirectory::keepReplaced(NameIn current, const std::string& path) {
  const auto mirror = mirrorOf(kReplaced, path);
  if (!mirror) return mirror.error();
  const char* name = current.name.c_str();
  if (::linkat(current.directory, name, mirror.value(), name, 0) == 0) return {};
  return errno == EEXIST || errno == EXDEV || errno == EMLINK || errno == EPERM
             ? Result<void>()
             : Result<void>(SystemError::last());
}

}  // namespace tessard
