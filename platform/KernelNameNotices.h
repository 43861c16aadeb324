#pragma once

#include <utility>

#include "common/Result.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Notices that the name which the running system goes by was set.
class KernelNameNotices {
 public:
  static Result<KernelNameNotices> open();

  /// poll(2) for POLLPRI answers with POLLPRI once for every time that the name was set since the opening or
  /// the last such answer. There is nothing to take away.
  int descriptor() const { return file_.get(); }

 private:
  explicit KernelNameNotices(FileDescriptor file) : file_(std::move(file)) {}

  FileDescriptor file_;
};

}  // namespace tessard
