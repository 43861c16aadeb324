#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

/// A fresh directory of the machine that serves as system root, with the links "/private/etc" and
/// "/private/var"; removed with all that is in it at the end. The paths of all members are paths of the
/// system
/// ("/private/etc/jabberd_notification/sm.xml"). Whatever cannot be done throws std::system_error, which
/// fails the test.
class ScratchRoot {
 public:
  ScratchRoot();
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;
  ~ScratchRoot();

  /// The root's own path on the machine, without a slash at its end.
  const std::string& path() const { return path_; }
  /// The path on the machine of a path of the system.
  std::string hostPath(std::string_view path) const;

  /// Writes a file, making the missing parents.
  void write(std::string_view path, std::string_view content) const;
  std::string read(std::string_view path) const;
  /// Whether there is anything of that name, a dangling link included.
  bool exists(std::string_view path) const;
  void remove(std::string_view path) const;
  /// Makes a directory, its parents included.
  void makeDirectory(std::string_view path) const;
  /// Makes a link that holds `target` as it stands.
  void makeLink(std::string_view path, std::string_view target) const;
  /// Names in the directory, sorted.
  std::vector<std::string> list(std::string_view path) const;

  void setModified(std::string_view path, FileTime time) const;
  void setMode(std::string_view path, mode_t mode) const;

  /// Of the file or link itself, as they are on disk.
  FileTime modified(std::string_view path) const;
  mode_t mode(std::string_view path) const;  ///< the twelve permission bits
  uid_t owner(std::string_view path) const;
  gid_t group(std::string_view path) const;

 private:
  std::string path_;
};

}  // namespace tessard
