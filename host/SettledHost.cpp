#include "host/SettledHost.h"

#include <cerrno>

#include "common/HostNames.h"
#include "common/PropertyList.h"

namespace tessard {

namespace {

constexpr const char* kHostKey = "host";

}  // namespace

Result<std::optional<std::string>> readSettledHost(FileSystem& files) {
  const auto content = readPropertyListFile(files, kSettledHostFile);
  if (!content) {
    if (content.error().code() == ENOENT) return std::optional<std::string>();
    return content.error();
  }
  const std::string* host = content.value().stringFor(kHostKey);
  if (!host || !isHostName(*host)) return SystemError(EBADMSG, "it holds no host name");
  return std::optional(*host);
}

Result<void> writeSettledHost(FileSystem& files, const std::string& host) {
  const std::string directory = directoryOf(kSettledHostFile);
  if (!files.exists(directory)) {
    auto made = files.createDirectory(directory, {std::nullopt, std::nullopt, 0755}, true);
    if (!made && made.error().code() != EEXIST) return made;
  }
  return writePropertyListFile(files, kSettledHostFile, {{kHostKey, host}},
                               {std::nullopt, std::nullopt, 0644});
}

}  // namespace tessard
