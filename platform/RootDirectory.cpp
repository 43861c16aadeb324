#include "platform/RootDirectory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <climits>

#include "platform/SystemCalls.h"

namespace tessard {

namespace {

// openat2 answers EAGAIN when a directory on the way is renamed while ".." is resolved. It succeeds as soon
// as nobody does so; whoever keeps renaming must not hold us up for ever.
constexpr int kResolvingAttempts = 1000;

}  // namespace

Result<FileDescriptor> openResolving(int root, const std::string& path, int flags, std::uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = resolve;
  for (int attempt = 1;; ++attempt) {
    const long opened =
        uninterrupted([&] { return syscall(SYS_openat2, root, path.c_str(), &how, sizeof how); });
    if (opened >= 0) return FileDescriptor(static_cast<int>(opened));
    if (errno != EAGAIN || attempt == kResolvingAttempts) return SystemError::last();
  }
}

Result<FileDescriptor> openBelowRoot(const std::string& root, std::string_view path, int flags) {
  const FileDescriptor rootDirectory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rootDirectory) return SystemError::last();
  return openResolving(rootDirectory.get(), std::string(path), flags, RESOLVE_IN_ROOT);
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
