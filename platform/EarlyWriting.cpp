#include "platform/EarlyWriting.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>

#include <system_error>
#include <utility>

namespace tessard {

namespace {

// Fewer files are flushed faster than a thread is made.
constexpr std::size_t kWorthwhile = 64;
// So many are handed over together.
constexpr std::size_t kTogether = 16;
// No more descriptors than this are kept for a disk that cannot keep up.
constexpr std::size_t kMostWaiting = 256;

}  // namespace

void EarlyWriting::add(int file) {
  const std::lock_guard lock(mutex_);
  if (++added_ < kWorthwhile || ending_) return;
  if (added_ == kWorthwhile) {
    struct statfs status {};
    isWorthless_ = ::fstatfs(file, &status) != 0 || status.f_type == TMPFS_MAGIC;
  }
  if (isWorthless_ || waiting_.size() >= kMostWaiting) return;
  FileDescriptor own(::fcntl(file, F_DUPFD_CLOEXEC, 0));
  if (!own) return;
  waiting_.push_back(std::move(own));
  if (waiting_.size() % kTogether != 0) return;
  if (worker_.joinable()) {
    changed_.notify_one();
    return;
  }
  try {
    worker_ = std::thread([this] { work(); });
  } catch (const std::system_error&) {
    isWorthless_ = true;
  }
}

void EarlyWriting::end() {
  std::thread worker;
  {
    const std::lock_guard lock(mutex_);
    added_ = 0;
    waiting_.clear();
    ending_ = worker_.joinable();
    worker.swap(worker_);
  }
  if (!worker.joinable()) return;
  changed_.notify_one();
  worker.join();
  const std::lock_guard lock(mutex_);
  ending_ = false;
}

void EarlyWriting::work() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    changed_.wait(lock, [this] { return ending_ || waiting_.size() >= kTogether; });
    const std::vector<FileDescriptor> files = std::exchange(waiting_, {});
    lock.unlock();
    for (const FileDescriptor& file : files) {
      // A hint: whatever is wrong, the flush will tell.
      static_cast<void>(::sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE));
    }
    lock.lock();
  }
}

}  // namespace tessard
