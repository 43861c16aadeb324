#pragma once

#include <optional>
#include <string_view>

#include "common/FileSystem.h"

namespace tessard {

/// From when on a change of the file is a change since `now`, the coarse real-time clock's, when the file is
/// about to be read or was just saved: `now`, or the file's own time where that is up to a tick later.
/// Kernels that date files more finely than that clock can date one so, and the file as it is must not look
/// newer than its reading: what is edited meanwhile would be given up for it.
FileTime momentOfLook(FileSystem& files, std::string_view path, FileTime now);
/// The same for a file that was looked at since `now`; absent when that failed.
FileTime momentOfLook(const std::optional<FileAttributes>& file, FileTime now);

/// Whether the second moment is earlier than the first or at most a tick of the coarse clock later: a file
/// can be written to twice within a tick and bear one time.
bool isWithinATick(FileTime from, FileTime to);

}  // namespace tessard
