#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/Result.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Opens a path below an open directory as openat2(2) does, whatever directories others rename meanwhile: the
/// kernel gives up then where ".." is on the way.
Result<FileDescriptor> openResolving(int root, const std::string& path, int flags, std::uint64_t resolve);

/// Opens a system path below a root directory of the machine with the given open(2) flags (close-on-exec is
/// added); links are followed within the root and cannot lead out of it.
Result<FileDescriptor> openBelowRoot(const std::string& root, std::string_view path, int flags);

/// The machine's own path of an open file or directory.
Result<std::string> realPathOf(const FileDescriptor& file);

}  // namespace tessard
