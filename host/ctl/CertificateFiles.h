#pragma once

#include <string>

#include "common/Result.h"

namespace tessard {

/// The content of a file with certificates or keys. EFBIG for more than a request can carry.
Result<std::string> certificateFile(const std::string& path);

}  // namespace tessard
