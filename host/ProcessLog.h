#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tessard {

/// The last lines (at most `count`, oldest first) that a process, running or not, sent to the system log:
/// from the file where there is one, otherwise from the journal. Empty when nothing is found or may be read;
/// only the end of a large log is looked through. `file` is a path of this machine. Any thread may call.
std::vector<std::string> lastLogLinesOf(pid_t pid, std::size_t count, const std::string& file);

}  // namespace tessard
