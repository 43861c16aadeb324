#pragma once

#include <string>

#include "platform/journal/EndedJournal.h"
#include "platform/journal/JournalDirectory.h"

namespace tessard {

/// The files of a root as they were before the last undoable change, as far as they can be read: whatever
/// would change something fails with EROFS.
class FormerFiles : public FileSystem {
 public:
  /// All is borrowed but the last change.
  FormerFiles(FileSystem& files, const JournalDirectory& journal, EndedJournal last)
      : files_(files), journal_(journal), last_(std::move(last)) {}

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
  Result<std::string> placeOf(std::string_view path) const;

  FileSystem& files_;
  const JournalDirectory& journal_;
  const EndedJournal last_;
};

}  // namespace tessard
