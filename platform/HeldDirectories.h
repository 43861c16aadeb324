#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/FileDescriptor.h"

namespace tessard {

/// Directories that are kept open for a while, by the paths that they were asked for with, so that who works
/// in one of them does not go the whole way there for each file. Few are kept, and none for long: one that
/// is exchanged for another is found again by its path soon. Any thread may call.
class HeldDirectories {
 public:
  using Handle = std::shared_ptr<const FileDescriptor>;

  /// Between these two directories are kept.
  void hold();
  void release();

  /// Null when there is none that is kept.
  Handle find(std::string_view path);

  /// The directory's handle; it is kept when it may be.
  Handle keep(std::string_view path, FileDescriptor directory);

  /// Forgets a directory that was kept and has been removed since. False when that is not so.
  bool forgetRemoved(std::string_view path);

 private:
  struct Held {
    Handle directory;
    std::chrono::steady_clock::time_point end;
  };

  std::mutex mutex_;
  bool holding_ = false;
  std::map<std::string, Held, std::less<>> held_;
};

}  // namespace tessard
