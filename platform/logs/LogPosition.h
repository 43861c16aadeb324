#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/logs/LogFile.h"

namespace tessard {

/// Where in a log file a reader is: the file's number and an offset, and digests of the bytes at the file's
/// beginning and before the offset. By these it is found again when its content was copied to another file,
/// and known to be gone when its number was given to another one.
class LogPosition {
 public:
  /// `offset` is at most the file's size.
  static LogPosition in(const LogFile& file, std::uint64_t offset);

  /// Nothing for a text that `text` never gives.
  static std::optional<LogPosition> parse(std::string_view text);
  std::string text() const;

  std::uint64_t offset() const { return offset_; }

  /// Whether the file holds what was read: as the file that it was read from, or as a copy of it. When
  /// nothing was read yet, only the file itself will do.
  bool isIn(const LogFile& file) const;

 private:
  std::uint64_t device_ = 0;
  std::uint64_t inode_ = 0;
  std::uint64_t offset_ = 0;
  std::uint64_t beginning_ = 0;
  std::uint64_t before_ = 0;
};

}  // namespace tessard
