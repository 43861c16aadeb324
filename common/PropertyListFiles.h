#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "common/DurableReplace.h"
#include "common/PropertyList.h"

namespace tessard {

/// Property-list files that are looked at again and again. What was read is remembered, and a file that is
/// unchanged on disk (device, inode, size and time of its last change) is neither read nor parsed again. A
/// file that was changed so recently that one more change could bear the same time is read again, and parsed
/// again when its bytes are others.
///
/// For files that the programs of the service share: whoever else changes one, the next look finds it so.
class PropertyListFiles {
 public:
  /// Both are borrowed and outlive this object.
  PropertyListFiles(FileSystem& files, Clock& clock) : files_(files), clock_(clock) {}

  /// As `readPropertyListFile`. What is pointed at is valid until the next look at the same path.
  Result<const Dictionary*> look(std::string_view path);

  /// The same, copied.
  Result<Dictionary> read(std::string_view path);

  /// As `writePropertyListFile`. What somebody else has changed, made or removed since the file was last
  /// looked at or written here is left as it is, and the write fails with `changedMeanwhile`. A file that was
  /// never looked at is replaced, whatever it is; one that could not be read for a reason that may pass is
  /// not, and the write fails with that reason.
  Result<void> write(std::string_view path, const Dictionary& content, const FileOwnership& ownership);

  /// For work that looks at a file more than once and then writes what it made of the first look: while this
  /// is there, a write fails when the file has changed since the first look or the last write.
  class FirstLooks {
   public:
    explicit FirstLooks(PropertyListFiles& lists) : lists_(lists) { lists_.firstLooks_.emplace(); }
    FirstLooks(const FirstLooks&) = delete;
    FirstLooks& operator=(const FirstLooks&) = delete;
    ~FirstLooks() { lists_.firstLooks_.reset(); }

   private:
    PropertyListFiles& lists_;
  };

 private:
  struct Remembered {
    Dictionary content;
    FileAttributes file;
    bool settled = false;  ///< no later change can have these attributes
    std::string bytes;     ///< while it is not settled
  };

  void keepVersion(std::string_view path, const Result<FileAttributes>& before,
                   const Result<std::string>& content);

  FileSystem& files_;
  Clock& clock_;
  std::map<std::string, Remembered, std::less<>> remembered_;
  std::map<std::string, Result<FileVersion>, std::less<>> versions_;  // that writes are made from
  std::optional<std::set<std::string, std::less<>>> firstLooks_;
};

}  // namespace tessard
