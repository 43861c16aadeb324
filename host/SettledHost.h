#pragma once

#include <optional>
#include <string>

#include "common/FileSystem.h"

namespace tessard {

/// Where the daemon remembers from one run to the next which host name the services go by.
inline constexpr const char* kSettledHostFile = "/var/lib/tessardd/network.plist";

/// The name in the file; absent when there is no such file. Fails when it is there and does not hold a host
/// name.
Result<std::optional<std::string>> readSettledHost(FileSystem& files);

/// Puts the name into the file, on disk before success is reported; missing directories are made. The older
/// file stays whole when that fails.
Result<void> writeSettledHost(FileSystem& files, const std::string& host);

}  // namespace tessard
