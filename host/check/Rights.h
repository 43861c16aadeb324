#pragma once

#include <string>
#include <string_view>

#include "common/FileSystem.h"
#include "host/check/CheckedSystem.h"

namespace tessard {

/// Whether the service's account has these rights (of S_IRWXO: 4 to read, 2 to write, 1 to enter) by its
/// number, its group or as anybody.
bool serviceMay(const FileAttributes& file, mode_t rights);

/// The first directory on the way to a path, links resolved, that the service's account cannot enter; empty
/// when it can enter all.
std::string closedDirectoryAbove(CheckedSystem& system, std::string_view path);

}  // namespace tessard
