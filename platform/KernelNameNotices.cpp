#include "platform/KernelNameNotices.h"

#include <fcntl.h>

namespace tessard {

Result<KernelNameNotices> KernelNameNotices::open() {
  FileDescriptor file(::open("/proc/sys/kernel/hostname", O_RDONLY | O_CLOEXEC));
  if (!file) return SystemError::last();
  return KernelNameNotices(std::move(file));
}

}  // namespace tessard
