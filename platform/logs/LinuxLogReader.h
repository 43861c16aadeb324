#pragma once

#include <cstdint>
#include <string>

#include "common/LogReader.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Reads the logs below one system root, files from their ends in blocks. A log goes on in the files that a
/// rotation made of it (see `RotatedLog`), a position too: whether the file was renamed, or copied and
/// emptied. Where the root is "/" and there is no file "/var/log/system.log", the journal stands for it.
/// What is written while a query runs is left to the next one; so is, read on from a position, a line that
/// has no end yet. Any thread may call; no state is shared between calls.
class LinuxLogReader : public LogReader {
 public:
  /// What one query may read of files, their unpacked bytes included.
  static constexpr std::uint64_t kSearchedBytes = std::uint64_t{64} * 1024 * 1024;

  explicit LinuxLogReader(const std::string& root, std::uint64_t searchedBytes = kSearchedBytes);

  Result<LogExcerpt> read(const LogQuery& query) override;

 private:
  FileDescriptor root_;
  int rootError_ = 0;
  bool hasJournal_;
  std::uint64_t searchedBytes_;
};

}  // namespace tessard
