#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "common/Directory.h"
#include "platform/PosixFileSystem.h"

namespace tessard {

/// The users and groups in /etc/passwd, /etc/shadow, /etc/group and /etc/gshadow below a system root: read
/// with the C library, changed with libuser. The four must be regular files there; a missing shadow file is
/// made by the first change. Node types other than the local one fail with EINVAL. Made before the process
/// has threads that use its environment, and used on one thread.
class LibuserDirectory : public Directory {
 public:
  /// `root` is a path of the machine. A change waits so long for other programs that hold a lock.
  explicit LibuserDirectory(std::string root, std::chrono::milliseconds patience = std::chrono::seconds(10));

  Result<std::unique_ptr<DirectoryNode>> nodeWithType(int type) override;
  bool getpwnam(std::string_view name) override;

 private:
  std::string root_;
  std::chrono::milliseconds patience_;
  PosixFileSystem files_;
};

}  // namespace tessard
