#pragma once

#include <functional>
#include <optional>
#include <string>

#include "common/FileSystem.h"
#include "common/HostNames.h"

namespace tessard {

/// The name that gethostname(2) gives; empty when it fails.
std::string runningHostName();

/// Host names of a Linux machine, in lower and upper case as they are written there.
///
/// A name with a dot is taken as fully qualified. A short one is completed from the system root's /etc/hosts:
/// the first entry that lists it and has a name with a dot gives that name; without one it stays short.
/// "localhost" and "localhost.localdomain", and what is no host name, are no names anywhere.
class LinuxHostNames : public HostNames {
 public:
  /// The file system is borrowed and outlives this object. `runningName` is asked for the name that the
  /// running system goes by.
  explicit LinuxHostNames(FileSystem& files, std::function<std::string()> runningName = runningHostName);

  /// The first line of /etc/hostname that is neither blank nor a comment. Absent when there is no such file
  /// or line; fails when that file, or the table that must complete the name, is there and cannot be read.
  Result<std::optional<std::string>> configuredName() override;

  /// The running system's name; left short when the table cannot be read.
  std::optional<std::string> storedName() override;

 private:
  Result<std::string> completed(const std::string& name);

  FileSystem& files_;
  std::function<std::string()> runningName_;
};

}  // namespace tessard
