#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/FileSystem.h"
#include "common/Result.h"
#include "platform/FileDescriptor.h"
#include "platform/journal/EndedJournal.h"
#include "platform/journal/JournalFiles.h"
#include "platform/journal/JournalNames.h"

namespace tessard {

/// Where the journal is, below the system root: as a rule in the file system of the files that it is for.
inline constexpr const char* kJournalHome = "/Library/Server/tessardd/journal";

/// The files that a request touches, as they were before: hard links below one directory that only its owner
/// can enter, so that nothing needs to be written or flushed. The names alone tell what belongs where, and
/// file systems that keep the order of changes to names keep the journal true without a flush of its own:
///
///     open/                      the journal of the request under way; it is there when there is one
///       present/+etc/sm.xml      a link to what "/etc/sm.xml" was
///       absent/+etc/made.xml     there was no "/etc/made.xml"
///       attributes/84.0.600/0    a link to a file that belonged to 84 and 0 and had the mode 0600; for a
///                                directory a symbolic link that holds its path
///       removed/84.0.700/0       a symbolic link that holds the path of a directory that was removed
///       replaced/+etc/sm.xml     what an undo after a crash found in the place of a file
///     kept/                      no longer needed, being removed
///     undone/                    what is left of the last undo after a crash, with "replaced"
///     undoable/                  has ended, and is to become the last one
///     last/                      of the last changes that can be undone by a request; with "versions", what
///                                the files were after them
///
/// Where a file is noted, present or absent, and its temporary ("%@.tmp") or its backup ("%@.bak") is not,
/// there was none of that.
///
/// A home that belongs to somebody else, or that others can write in, gets the name "journal.foreign" and is
/// not looked at.
///
/// Where no link can be made (another file system, too many links) there is a flushed copy. The paths are
/// those of the root after all links, and are followed without links when something is put back.
class JournalDirectory {
 public:
  /// `root` is a path of the machine. `files` makes the journal's home.
  JournalDirectory(FileSystem& files, const std::string& root);

  /// A file by its opened directory, which is `path` below the root, links resolved.
  struct Place {
    int directory;
    std::string path;
    std::string name;
  };

  /// Opens a directory of the root without a change, for a `Place`.
  struct OpenedDirectory {
    FileDescriptor descriptor;
    std::string path;
  };
  Result<OpenedDirectory> open(std::string_view directory) const;

  // Each name may be noted once, and a file only when its temporary and its backup are noted where they are.

  /// Notes what the name stands for now. False for a directory, which is not noted.
  Result<bool> remember(const Place& place);
  /// Notes a file that is there. False where there is none.
  Result<bool> rememberPresent(const Place& place);
  /// Notes that there is nothing below `path`, in a directory that may itself be missing.
  Result<void> rememberAbsent(const std::string& path, const std::string& name);
  /// Notes a file and takes it away, in one step where that is possible. EISDIR for a directory.
  Result<void> take(const Place& place);
  /// Notes owner, group and permissions of what the name stands for.
  Result<void> rememberAttributes(const Place& place, const struct stat& status);
  /// Notes a directory that is about to be removed, and what it was.
  Result<void> rememberDirectory(const Place& place, const struct stat& status);
  /// Forgets what was noted about a name, but not what that tells of its temporary and its backup.
  Result<void> forget(const std::string& path, const std::string& name);

  bool isEmpty() const { return !open_; }

  /// Ends the journal: what was changed stays. `makeNamesLast` flushes the directories that were changed,
  /// which is done when the journal's own end waits for its flush: where the order of changes to names is
  /// kept, the first flush is that of all. When this fails, everything can still be undone.
  /// `undoable`: what was changed becomes the last change.
  Result<void> keep(const std::function<Result<void>()>& makeNamesLast, bool undoable);
  /// Removes what is left of a journal that has ended. Takes as long as there were files. An undoable one
  /// that tells of a difference is kept as that of the last change, in place of the one before.
  void tidyUp();

  /// The last undoable change that was kept and tidied up after. ENOENT when there is none.
  Result<EndedJournal> last();
  /// That change can be undone no longer. Success where there is none.
  Result<void> forgetLast();
  /// What the files of that change were after it. A file is `kUnknownVersion` where that can no longer be
  /// known.
  Result<EndedJournal::Versions> versionsAfter(const EndedJournal& last) const;
  /// What the file of a note is now; `kUnknownVersion` when it has changed since the moment.
  Result<std::string> versionNow(const EndedJournal::Note& note, std::optional<FileTime> since) const;

  struct Undone {
    bool found = false;                 ///< whether there was a journal of a request that was cut off
    std::size_t files = 0;              ///< that were not as they had been
    std::vector<std::string> problems;  ///< sentences; the journal is still there when there are any
  };
  /// Puts everything back and ends the journal.
  Undone undo();

  /// After a start: undoes the journal of a request that was cut off, and removes what is no longer needed.
  /// What the undo replaces is kept in `undone`, in case it was a person's work since.
  Undone recover();

 private:
  struct Restoring;

  Result<void> openHome();
  Result<FileDescriptor> openOrMakeHome();
  Result<void> makeJournal();
  Result<void> openJournal();
  Result<int> mirrorOf(const char* kind, const std::string& path);
  Result<void> linkInto(int mirror, const Place& place);
  Result<void> rename(const std::string& to);
  Result<void> retire(
      const std::string& to,
      const std::function<Result<void>()>& makeNamesLast = [] { return Result<void>(); });
  void restoreAll(bool keepsReplaced, Undone& undone);
  void promote();
  Result<EndedJournal::Versions> versionsNow(const EndedJournal& journal) const;
  Result<bool> tellsOfDifference(const EndedJournal& journal, const EndedJournal::Versions& after) const;
  Result<void> noteByPath(const char* kind, const Place& place, const struct stat& status, bool canBeLink);
  void restoreDirectories(Restoring& restoring);
  void restoreAttributes(Restoring& restoring);
  Result<void> giveBackNoted(NameIn noted, const NotedAttributes& attributes) const;
  void restoreTree(const std::string& kind, int mirror, const std::string& path, Restoring& restoring);
  Result<void> restoreNoted(const std::string& kind, NameIn noted, int target, const std::string& path,
                            Restoring& restoring);
  Result<void> removeUnnotedBeside(NameIn noted, int target, const std::string& path, Restoring& restoring);
  Result<void> removeMade(NameIn current, const std::string& path, Restoring& restoring);
  Result<void> restorePresent(NameIn noted, int target, const std::string& path, Restoring& restoring);
  Result<void> restoreAbsent(NameIn noted, int target, const std::string& path, Restoring& restoring);
  Result<void> keepReplaced(NameIn current, const std::string& path);

  FileSystem& files_;
  FileDescriptor root_;
  int rootError_ = 0;
  std::string rootPath_;
  FileDescriptor home_;
  FileDescriptor open_;
  std::string name_ = kOpenJournal;  // of what is open
  std::map<std::pair<std::string, std::string>, FileDescriptor> mirrors_;
  int count_ = 0;  // of the notes that are numbered
};

}  // namespace tessard
