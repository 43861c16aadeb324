#include "host/check/Rights.h"

#include <sys/stat.h>

#include "config/JabberPaths.h"

namespace tessard {

bool serviceMay(const FileAttributes& file, mode_t rights) {
  if (file.owner == kJabberUserID) return ((file.permissions >> 6U) & rights) == rights;
  if (file.group == kJabberGroupID) return ((file.permissions >> 3U) & rights) == rights;
  return (file.permissions & rights) == rights;
}

std::string closedDirectoryAbove(CheckedSystem& system, std::string_view path) {
  const auto real = system.machinePathOf(path);
  const auto root = system.machinePathOf("/");
  if (!real || !root) return "";
  const std::size_t prefix = root.value() == "/" ? 0 : root.value().size();
  const std::string below = real.value().substr(prefix);
  for (std::size_t slash = below.find('/', 1); slash != std::string::npos;
       slash = below.find('/', slash + 1)) {
    std::string directory = below.substr(0, slash);
    const auto attributes = system.files.attributes(directory);
    if (attributes && !serviceMay(attributes.value(), S_IXOTH)) return directory;
  }
  return "";
}

}  // namespace tessard
