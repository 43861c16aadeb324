#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/Result.h"
#include "platform/FileDescriptor.h"

struct inotify_event;

namespace tessard {

/// Notices that one of some files below a root directory may have another content: it was written, replaced,
/// removed, made, or given other rights; also when a directory on the way to it was. Files and directories
/// need not exist; links are followed within the root.
class FileNotices {
 public:
  /// `root` is a path of the machine, the others are paths below it. Watches nothing before `arm`.
  static Result<FileNotices> open(std::string root, std::vector<std::string> paths);

  /// Becomes readable with a notice.
  int descriptor() const { return inotify_.get(); }

  /// Watches what now stands at the paths and on the way to them. To be called before the files are read and
  /// again after every notice, so that no change is missed. Fails when something is there that cannot be
  /// watched; the rest is watched all the same.
  Result<void> arm();

  /// Takes away all notices that are there, and tells whether one of them was about the files. Never waits.
  Result<bool> take();

 private:
  /// Names that matter in each watched directory; for a watched file itself there are none.
  using Watches = std::map<int, std::set<std::string>>;

  FileNotices(FileDescriptor inotify, std::string root, std::vector<std::string> paths);

  Result<void> watchPath(const std::string& path, Watches& watches) const;
  Result<void> watchDirectoryOf(const std::string& path, Watches& watches) const;
  Result<void> watchTarget(const std::string& path, Watches& watches) const;
  Result<void> watch(const FileDescriptor& place, std::uint32_t mask, const std::string& name,
                     Watches& watches) const;
  bool matters(const inotify_event& event, const char* name);

  FileDescriptor inotify_;
  std::string root_;
  std::vector<std::string> paths_;
  Watches watches_;
};

}  // namespace tessard
