#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

/// Records every call of a file system and makes chosen ones fail. A call that is made to fail does not reach
/// the file system behind; `exists` then answers false. Operations go by the names of their members
/// ("createFile"); a name that is none throws std::invalid_argument.
class FaultyFileSystem : public FileSystem {
 public:
  struct Call {
    std::string operation;
    std::string path;
    std::string secondPath;   ///< of copyFile, rename and exchange; empty otherwise
    FileOwnership ownership;  ///< of createFile, createDirectory and setOwnership
    int error = 0;            ///< what the call failed with, by itself or made to
    bool operator==(const Call& other) const;
  };

  /// The file system behind is borrowed.
  explicit FaultyFileSystem(FileSystem& behind) : behind_(behind) {}

  /// The `count`th call of the operation from now on fails, once.
  void failNth(std::string_view operation, int count, int error);
  /// Every call of the operation fails from now on.
  void failAll(std::string_view operation, int error);
  /// Every call with a path (either path) that ends with the suffix fails from now on.
  void failPath(std::string_view suffix, int error);
  /// The same for one operation only.
  void failPath(std::string_view operation, std::string_view suffix, int error);
  /// The disk is full: no file can be made, ENOSPC.
  void fillDisk();
  /// Nothing is made to fail any longer.
  void heal();

  /// Called before each call is carried out, failing ones included; null for none. What it does to the files
  /// through another object happens between two operations of the code under test.
  std::function<void(const Call&)> beforeCall;

  const std::vector<Call>& calls() const { return calls_; }
  /// The calls of one operation.
  std::vector<Call> calls(std::string_view operation) const;
  /// The calls as text: "createFile /a", "rename /a /b".
  std::vector<std::string> journal() const;
  /// The same without the operations that change nothing (exists, attributes, readFile, listDirectory).
  std::vector<std::string> changes() const;
  void clearCalls() { calls_.clear(); }

  bool exists(std::string_view path) override;
  Result<FileAttributes> attributes(std::string_view path) override;
  Result<std::string> readFile(std::string_view path, std::size_t limit) override;
  /// Recorded as "readFile" for each.
  std::vector<Result<FileFingerprint>> fingerprints(const std::vector<std::string>& paths,
                                                    std::size_t limit) override;
  Result<void> createFile(std::string_view path, std::string_view content, const FileOwnership& ownership,
                          Flush flush) override;
  /// Recorded as "createFile" for each.
  std::vector<Result<FileAttributes>> createFiles(const std::vector<NewFile>& files) override;
  /// Recorded as "copyFile" for each; all that are not made to fail are then copied.
  FileCopies copyFiles(std::string_view from, const std::vector<std::string>& to, std::size_t limit) override;
  /// Recorded once for each path; a failure of any of them fails the call.
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
  struct Fault {
    std::string operation;  ///< empty: any
    std::string suffix;     ///< empty: any
    int countdown;          ///< 0: every call
    int error;
  };

  int faultFor(const Call& call);
  template <class Answer>
  Answer carryOut(Call call, const std::function<Answer()>& operation);

  FileSystem& behind_;
  std::vector<Fault> faults_;
  std::vector<Call> calls_;
};

void PrintTo(const FaultyFileSystem::Call& call, std::ostream* out);

}  // namespace tessard
