#include "platform/RootDirectory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <climits>

namespace tessard {

Result<FileDescriptor> openBelowRoot(const std::string& root, std::string_view path, int flags) {
  const FileDescriptor rootDirectory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rootDirectory) return SystemError::last();
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  const long opened = syscall(SYS_openat2, rootDirectory.get(), std::string(path).c_str(), &how, sizeof how);
  if (opened < 0) return SystemError::last();
  return FileDescriptor(static_cast<int>(opened));
}

Result<std::string> realPathOf(const FileDescriptor& file) {
  std::string path(PATH_MAX, '\0');
  const std::string link = "/proc/self/fd/" + std::to_string(file.get());
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  if (length < 0) return SystemError::last();
  path.resize(static_cast<std::size_t>(length));
  return path;
}

}  // namespace tessard
