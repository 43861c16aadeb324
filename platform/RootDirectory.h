#pragma once

#include <string>
#include <string_view>

#include "common/Result.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Opens a system path below a root directory of the machine with the given open(2) flags (close-on-exec is
/// added); links are followed within the root and cannot lead out of it.
Result<FileDescriptor> openBelowRoot(const std::string& root, std::string_view path, int flags);

/// The machine's own path of an open file or directory.
Result<std::string> realPathOf(const FileDescriptor& file);

}  // namespace tessard
