#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/Changes.h"
#include "common/FileSystem.h"
#include "common/Log.h"
#include "platform/PosixFileSystem.h"
#include "platform/journal/JournalDirectory.h"

namespace tessard {

/// A file system that notes in a journal, during a request, what each file was before its first change, so
/// that all of them can be put back. Reading costs nothing, and outside of a request nothing is noted. A file
/// that cannot be noted is not changed: the call fails with the journal's error.
///
/// During a request directories are flushed once each, when changes are kept, and files taken away go into
/// the journal, to be removed for good after the request. For one thread.
class JournalingFileSystem : public FileSystem, public Changes {
 public:
  /// `behind` is borrowed; `root` is the path of the machine that is its root. `posix`, what is behind all,
  /// holds its directories during each request.
  JournalingFileSystem(FileSystem& behind, PosixFileSystem& posix, const std::string& root, Log& log);

  /// Undoes what a daemon that died has left unfinished. To be called before the first request.
  JournalDirectory::Undone recover();

  /// A request begins. When an earlier undo could not be finished it is tried again; until it succeeds, no
  /// file can be changed.
  void startRequest();
  /// The request has ended: what it changed since the last `keep` or `end` is kept, or put back when it has
  /// failed. False when it was put back.
  bool finishRequest(bool failed);
  /// Removes what the last request has left in the journal, which nobody needs to wait for.
  void tidyUp();
  /// Outside of a request: nothing can be undone until the next undoable change.
  Result<void> forgetLast();

  void keep() override;
  void begin() override;
  void fail() override;
  bool end() override;
  bool endUndoably() override;
  LastChange lastChange() override;
  LastChange undoLast() override;
  std::unique_ptr<FileSystem> filesBeforeLast() override;
  bool underWay() const override { return together_; }
  std::size_t timesUndone() const override { return timesUndone_; }
  void leave(std::string_view path) override;

  bool exists(std::string_view path) override;
  Result<FileAttributes> attributes(std::string_view path) override;
  Result<std::string> readFile(std::string_view path, std::size_t limit) override;
  std::vector<Result<FileFingerprint>> fingerprints(const std::vector<std::string>& paths,
                                                    std::size_t limit) override;
  Result<void> createFile(std::string_view path, std::string_view content, const FileOwnership& ownership,
                          Flush flush) override;
  std::vector<Result<FileAttributes>> createFiles(const std::vector<NewFile>& files) override;
  FileCopies copyFiles(std::string_view from, const std::vector<std::string>& to, std::size_t limit) override;
  Result<void> flush(const std::vector<std::string>& paths) override;
  Result<void> rename(std::string_view from, std::string_view to) override;
  Result<void> exchange(std::string_view first, std::string_view second) override;
  Result<void> remove(std::string_view path) override;
  Result<void> createDirectory(std::string_view path, const FileOwnership& ownership,
                               bool withParents) override;
  Result<void> setOwnership(std::string_view path, const FileOwnership& ownership) override;
  Result<std::vector<std::string>> listDirectory(std::string_view path) override;
  Result<void> syncDirectory(std::string_view path) override;

 private:
  std::optional<JournalDirectory::Place> placeOf(std::string_view path);
  std::string placeOfMissing(const std::string& directory);
  using Place = JournalDirectory::Place;
  /// Where a change is to be noted; absent where there is nothing to note, or it is noted already.
  Result<std::optional<Place>> unnoted(std::string_view path);
  bool isNoted(const Place& place) const;
  void setNoted(const Place& place, bool covers);
  Result<void> remember(std::string_view path);
  Result<void> remember(const Place& place);
  Result<void> rememberBeside(const Place& place);
  bool mayBeThere(const Place& beside);
  void forgetNotes();
  Result<void> rememberMissing(std::string_view path);
  Result<void> rememberAttributes(std::string_view path, const FileOwnership& ownership);
  Result<void> makeLast(bool undoable);
  bool keepNow(bool undoable = false);
  bool endTogether(bool undoable);
  LastChange failedChange(const SystemError& reason);
  using Versions = EndedJournal::Versions;
  Result<std::vector<std::string>> changedSince(const EndedJournal& last, const Versions& after);
  Result<void> undo(const EndedJournal& last, const Versions& after, std::string& path);
  Result<void> undoFile(const EndedJournal& last, const EndedJournal::Note& note, const std::string& after);
  Result<void> undoBeside(const EndedJournal& last, const EndedJournal::Note& file);
  Result<void> undoMade(const Place& place, const std::string& after);
  Result<void> undoAttributes(NameIn noted, const NotedAttributes& before);
  Result<void> removeDirectory(const Place& place);
  Result<void> linkBack(const EndedJournal& last, const EndedJournal::Note& note, const Place& place,
                        const std::string& name);
  void undoNow();
  void reportUndone(const JournalDirectory::Undone& undone);

  FileSystem& behind_;
  PosixFileSystem& posix_;
  const Object log_;
  JournalDirectory journal_;
  bool inRequest_ = false;
  bool together_ = false;
  bool failed_ = false;
  bool undoUnfinished_ = false;
  std::size_t timesUndone_ = 0;
  bool hasKept_ = false;        // whether there is a journal that has ended
  bool undoableWaits_ = false;  // whether there may be an undoable one among them
  std::map<std::string, JournalDirectory::OpenedDirectory> directories_;  // as callers name them
  // Without links; true for files whose notes tell of the names beside them, too.
  std::unordered_map<std::string, bool> noted_;
  /// What stands beside the files of a directory, once many were looked for.
  struct Beside {
    std::size_t lookedFor = 0;
    std::optional<std::unordered_set<std::string>> names;
  };
  std::unordered_map<std::string, Beside> beside_;  // by the directory, without links
  std::unordered_set<std::string> unflushed_;       // files, as callers name them
  std::set<std::string> unsynced_;                  // directories
};

}  // namespace tessard
