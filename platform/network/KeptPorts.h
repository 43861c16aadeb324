#pragma once

#include <cstdint>
#include <set>

#include "common/FileSystem.h"
#include "common/Result.h"

namespace tessard {

/// Where the ports stand that are to be kept mapped at the gateway: a property list {"ports": [5268]}.
inline constexpr const char* kKeptPortsFile = "/var/lib/tessardd/port-mappings.plist";

/// None without a file. Fails when the file cannot be read or holds something else.
Result<std::set<std::uint16_t>> readKeptPorts(FileSystem& files);

/// Replaces the file in one step, making its directory where that is missing.
Result<void> writeKeptPorts(FileSystem& files, const std::set<std::uint16_t>& ports);

}  // namespace tessard
