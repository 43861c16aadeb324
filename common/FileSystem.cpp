#include "common/FileSystem.h"

#include <cerrno>
#include <limits>

namespace tessard {

Result<void> FileSystem::copyFile(std::string_view from, std::string_view to) {
  constexpr std::size_t kAnyLength = std::numeric_limits<std::size_t>::max() / 2;
  const FileCopies copies = copyFiles(from, {std::string(to)}, kAnyLength);
  const auto& made = copies.made.front();
  return made ? Result<void>() : Result<void>(made.error());
}

bool mayPass(const SystemError& error) {
  switch (error.code()) {
    case 0:
    case EFBIG:
    case EINVAL:
    case ELOOP:
    case ENOENT:
    case ENOTDIR:
      return false;
    default:
      return true;
  }
}

Result<bool> isThere(FileSystem& files, std::string_view path) {
  const auto found = files.attributes(path);
  if (!found && mayPass(found.error())) return found.error();
  return found.ok();
}

std::string directoryOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  return std::string(slash == 0 ? "/" : path.substr(0, slash));
}

std::string lastPathComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace tessard
