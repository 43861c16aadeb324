#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/Result.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// What a query has read so far, and how much it may read.
struct LogMeter {
  std::uint64_t limit = 0;
  std::uint64_t read = 0;
  bool exhausted = false;  ///< something was not read for the limit

  /// Accounts for bytes that are about to be read; false, and exhausted, when they are too many.
  bool take(std::uint64_t bytes);
};

/// One open file of a log, as long as it was when it was opened.
class LogFile {
 public:
  /// Opens a regular file by its path below a root directory of the machine. Links lead no further than the
  /// root, and count only in directories that nobody but root and this process's user can change: a service
  /// that owns its log directory must not choose what is read for it. ELOOP for a link elsewhere, EPERM
  /// there for a second name of somebody else's file, EINVAL for what is no regular file.
  static Result<LogFile> open(int root, std::string_view path);

  /// The same for a gzip file, whose content is kept in memory: EFBIG when that exceeds the meter's limit,
  /// EBADMSG when it is damaged.
  static Result<LogFile> openCompressed(int root, std::string_view path, LogMeter& meter);

  std::uint64_t size() const { return size_; }
  std::uint64_t device() const { return device_; }
  std::uint64_t inode() const { return inode_; }
  bool isSameAs(const LogFile& other) const { return device_ == other.device_ && inode_ == other.inode_; }

  /// Reads at an offset; fewer bytes than asked for where the file has become shorter.
  Result<std::size_t> readAt(std::uint64_t offset, char* buffer, std::size_t size) const;

 private:
  LogFile(FileDescriptor descriptor, std::uint64_t size, std::uint64_t device, std::uint64_t inode)
      : descriptor_(std::move(descriptor)), size_(size), device_(device), inode_(inode) {}

  static Result<LogFile> of(FileDescriptor descriptor);

  FileDescriptor descriptor_;
  std::uint64_t size_;
  std::uint64_t device_;
  std::uint64_t inode_;
};

}  // namespace tessard
