#pragma once

#include <string>

#include "common/Result.h"

namespace tessard {

/// The path, in the system below the root, of a file that is named by a path of the machine. Links on the way
/// to it are followed within the root, a link in its last place is not: a file that is one name for another
/// one, as a renewed certificate may be, keeps its name. Fails for a path that is not below the root.
Result<std::string> systemPathOf(const std::string& root, const std::string& machinePath);

/// The content of a regular file of the system; EFBIG when it is longer than 1 MiB.
Result<std::string> readSystemFile(const std::string& root, const std::string& systemPath);

}  // namespace tessard
