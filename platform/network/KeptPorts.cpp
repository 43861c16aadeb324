#include "platform/network/KeptPorts.h"

#include <cerrno>
#include <limits>

#include "common/PropertyList.h"

namespace tessard {

namespace {

constexpr const char* kPortsKey = "ports";

}  // namespace

Result<std::set<std::uint16_t>> readKeptPorts(FileSystem& files) {
  std::set<std::uint16_t> ports;
  const auto content = readPropertyListFile(files, kKeptPortsFile);
  if (!content) {
    if (content.error().code() == ENOENT) return ports;
    return content.error();
  }
  const Array* list = content.value().arrayFor(kPortsKey);
  if (!list) return SystemError(EBADMSG, "it holds no list of ports");
  for (const Value& entry : *list) {
    const std::int64_t port = entry.asInteger() ? *entry.asInteger() : 0;
    if (port < 1 || port > std::numeric_limits<std::uint16_t>::max()) {
      return SystemError(EBADMSG, "its list holds something that is no port");
    }
    ports.insert(static_cast<std::uint16_t>(port));
  }
  return ports;
}

Result<void> writeKeptPorts(FileSystem& files, const std::set<std::uint16_t>& ports) {
  const std::string directory = directoryOf(kKeptPortsFile);
  if (!files.exists(directory)) {
    auto made = files.createDirectory(directory, {std::nullopt, std::nullopt, 0755}, true);
    if (!made && made.error().code() != EEXIST) return made;
  }
  Array list;
  for (const std::uint16_t port : ports) list.emplace_back(static_cast<int>(port));
  return writePropertyListFile(files, kKeptPortsFile, {{kPortsKey, std::move(list)}},
                               {std::nullopt, std::nullopt, 0644});
}

}  // namespace tessard
