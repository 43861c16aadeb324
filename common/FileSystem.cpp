#include "common/FileSystem.h"

#include <cerrno>

namespace tessard {

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
