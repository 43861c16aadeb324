#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "common/Directory.h"
#include "platform/PosixFileSystem.h"
#include "platform/accounts/AccountProgram.h"

namespace tessard {

/// The users and groups in /etc/passwd, /etc/shadow, /etc/group and /etc/gshadow below a system root: read
/// with the C library, changed with libuser by the program "change_accounts". The four must be regular files
/// there; a missing shadow file is made by the first change. Node types other than the local one fail with
/// EINVAL.
class LibuserDirectory : public Directory {
 public:
  /// `root` is a path of the machine, and the root of `tasks`, which are borrowed. A change waits so long for
  /// other programs that hold a lock.
  LibuserDirectory(std::string root, Tasks& tasks,
                   std::chrono::milliseconds patience = std::chrono::seconds(10));

  Result<std::unique_ptr<DirectoryNode>> nodeWithType(int type) override;
  bool getpwnam(std::string_view name) override;

 private:
  std::string root_;
  PosixFileSystem files_;
  AccountProgram changes_;
};

}  // namespace tessard
