#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "common/Result.h"
#include "platform/FileDescriptor.h"
#include "platform/journal/JournalNames.h"

// What the journal does with files, by the descriptors of their directories. No name is resolved further.

namespace tessard {

/// A name in an opened directory.
struct NameIn {
  int directory;
  const std::string& name;
};

/// The attributes of what stands under the name, a link itself included.
Result<struct stat> statusOf(NameIn file);

/// Opens a directory for reading. ELOOP or ENOTDIR for anything else.
Result<FileDescriptor> openDirectory(NameIn directory);

/// The same, made first where it is missing, for its owner alone.
Result<FileDescriptor> makeAndOpenDirectory(NameIn directory);

struct DirectoryEntry {
  std::string name;
  bool isDirectory;
};

/// All entries but "." and "..", sorted.
Result<std::vector<DirectoryEntry>> entriesOf(int directory);

/// Removes a directory with all that is in it, or whatever else has that name. Success when there is nothing.
Result<void> removeTree(NameIn directory);

/// Gives what the name stands for owner, group and, unless it is a link, permissions.
Result<void> giveBack(NameIn file, const NotedAttributes& attributes);

/// Copies a regular file or a link to a free name of another file system, with its owner, permissions and
/// times, flushed. No file is left when that fails.
Result<void> copyAcross(NameIn from, NameIn to);

}  // namespace tessard
