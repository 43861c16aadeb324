#pragma once

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
#include "platform/journal/JournalFiles.h"
#include "platform/journal/JournalNames.h"

namespace tessard {

/// A journal of changes that were kept, read for what was before them.
class EndedJournal {
 public:
  /// Of that name in the journal's home. ENOENT when there is none.
  static Result<EndedJournal> open(int home, const std::string& name);

  /// A name of the root that the changes concerned.
  struct Note {
    bool present;      ///< whether there was something, which the journal then holds
    std::string path;  ///< of its directory
    std::string name;
    auto key() const { return std::pair<std::string_view, std::string_view>(path, name); }
  };
  /// The files, and then the temporaries and backups beside them. Beside a file of which those are not among
  /// them there were none.
  const std::vector<Note>& files() const { return files_; }
  const std::vector<Note>& besides() const { return besides_; }
  /// The note of a name; null where there is none.
  const Note* find(const std::string& path, const std::string& name) const;

  struct Directory {
    std::string path;
    NotedAttributes attributes;
  };
  /// Directories that were removed, each before what was in it.
  const std::vector<Directory>& removed() const { return removed_; }

  /// Where what was present can be opened, by that name.
  Result<FileDescriptor> mirrorOf(const std::string& path) const;

  /// Calls with the place of every note of attributes and with what they were, until one call fails.
  using NoteCall = std::function<Result<void>(NameIn noted, const NotedAttributes& before)>;
  Result<void> forEachAttributes(const NoteCall& call) const;

  /// What is under names now, by their paths, to be compared with what will be later.
  using Versions = std::map<std::string, std::string>;
  /// Those of `files` that the journal was given; absent when they were not, or not whole.
  std::optional<Versions> versions() const;
  /// Gives the journal versions. Not flushed.
  Result<void> setVersions(const Versions& versions) const;

  /// When the journal got the name that it has.
  Result<FileTime> named() const;

 private:
  Result<void> readKind(const char* kind);
  Result<void> readTree(int mirror, const std::string& path, bool present);
  Result<void> readRemoved();
  Result<void> forEachNoteOf(const std::string& group, const NoteCall& call) const;

  FileDescriptor directory_;
  std::vector<Note> files_;  // both sorted
  std::vector<Note> besides_;
  std::vector<Directory> removed_;
};

/// In a few words what is under a name: kind, owner, group, permissions and a digest of the content; "none"
/// where there is nothing. Two files of which that is the same are the same to everybody.
Result<std::string> versionOf(NameIn file);

/// The version of a file that has changed since the moment, which is no other's.
inline const std::string kUnknownVersion = "unknown";
inline const std::string kNoVersion = "none";

}  // namespace tessard
