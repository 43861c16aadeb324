#include "platform/HeldDirectories.h"

#include <sys/stat.h>

#include <cstddef>
#include <utility>

namespace tessard {

namespace {

// A request works in fewer; a scan of many directories has no use for them later.
constexpr std::size_t kMostHeld = 16;
// Longer than a settings write of thousands of domains takes, shorter than the wait for a service.
constexpr std::chrono::seconds kLongestHeld(1);

}  // namespace

void HeldDirectories::hold() {
  const std::lock_guard lock(mutex_);
  holding_ = true;
}

void HeldDirectories::release() {
  const std::lock_guard lock(mutex_);
  holding_ = false;
  held_.clear();
}

HeldDirectories::Handle HeldDirectories::find(std::string_view path) {
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(path);
  if (found == held_.end()) return nullptr;
  if (std::chrono::steady_clock::now() < found->second.end) return found->second.directory;
  held_.erase(found);
  return nullptr;
}

HeldDirectories::Handle HeldDirectories::keep(std::string_view path, FileDescriptor directory) {
  auto handle = std::make_shared<const FileDescriptor>(std::move(directory));
  const std::lock_guard lock(mutex_);
  if (holding_ && held_.size() < kMostHeld) {
    held_.insert_or_assign(std::string(path), Held{handle, std::chrono::steady_clock::now() + kLongestHeld});
  }
  return handle;
}

bool HeldDirectories::forgetRemoved(std::string_view path) {
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(path);
  if (found == held_.end()) return false;
  struct stat status {};
  if (::fstat(found->second.directory->get(), &status) == 0 && status.st_nlink > 0) return false;
  held_.erase(found);
  return true;
}

}  // namespace tessard
