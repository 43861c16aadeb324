#pragma once

#include <unistd.h>

#include <utility>

namespace tessard {

/// Owns an open file descriptor; -1 stands for none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      close();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  ~FileDescriptor() { close(); }

  int get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  /// Gives the descriptor up to the caller.
  int release() { return std::exchange(descriptor_, -1); }

  /// What close(2) answers; 0 when there is none. The descriptor is gone in every case.
  int close() { return descriptor_ < 0 ? 0 : ::close(std::exchange(descriptor_, -1)); }

 private:
  int descriptor_ = -1;
};

}  // namespace tessard
