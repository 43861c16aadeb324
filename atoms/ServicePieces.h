#pragma once

#include <string>

#include "common/Platform.h"

namespace tessard {

/// Whether a piece of the service's data is there. One that cannot be looked at for the moment counts as
/// missing, which a warning tells.
bool pieceIsThere(Platform& platform, const std::string& path);
/// The same for one that must be a directory.
bool directoryIsThere(Platform& platform, const std::string& path);

}  // namespace tessard
