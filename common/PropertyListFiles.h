#pragma once

#include <map>
#include <string>
#include <string_view>

#include "common/Clock.h"
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

 private:
  struct Remembered {
    Dictionary content;
    FileAttributes file;
    bool settled = false;  ///< no later change can have these attributes
    std::string bytes;     ///< while it is not settled
  };

  FileSystem& files_;
  Clock& clock_;
  std::map<std::string, Remembered, std::less<>> remembered_;
};

}  // namespace tessard
