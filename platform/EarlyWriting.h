#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"

namespace tessard {

/// Has the disk begin with the contents of many new files while more of them are being made, on a thread of
/// its own, so that the flush of them all has less to wait for. Nothing is promised about any file: who needs
/// it on the disk flushes it. Any thread may call.
class EarlyWriting {
 public:
  EarlyWriting() = default;
  EarlyWriting(const EarlyWriting&) = delete;
  EarlyWriting& operator=(const EarlyWriting&) = delete;
  ~EarlyWriting() { end(); }

  /// A file that is complete but for its flush. Few of them are left alone.
  void add(int file);

  /// Returns when nothing is being written any more on behalf of this.
  void end();

 private:
  void work();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t added_ = 0;
  bool isWorthless_ = false;  // there is no disk, or no thread
  std::vector<FileDescriptor> waiting_;
  bool ending_ = false;
  std::thread worker_;
};

}  // namespace tessard
