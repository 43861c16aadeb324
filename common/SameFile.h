#pragma once

#include "common/FileSystem.h"

namespace tessard {

/// Whether two looks found the same file with the same content: device, inode, size, and the times of its
/// last modification and change.
inline bool isSameFile(const FileAttributes& a, const FileAttributes& b) {
  return a.device == b.device && a.inode == b.inode && a.size == b.size && a.modified == b.modified &&
         a.changed == b.changed;
}

}  // namespace tessard
