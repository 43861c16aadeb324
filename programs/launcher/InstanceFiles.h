#pragma once

#include <string>
#include <vector>

#include "common/FileSystem.h"
#include "common/Processes.h"
#include "common/Result.h"
#include "programs/launcher/InstancePlan.h"

namespace tessard {

/// Where the components write their pid files; gone after every boot where /var/run is in memory.
inline constexpr const char* kRunDirectory = "/var/run/jabberd_notification";

/// Makes the run directory where it is missing, owner 84, group 1, mode 0755.
Result<void> makeRunDirectory(FileSystem& files);

/// The pid files of the instance that exist: those that the components are told to write, and whatever else
/// is in the run directory, which may be of components that were taken out of the master file.
std::vector<std::string> pidFilesOf(FileSystem& files, const std::vector<Component>& components);

/// Whether the pid file names a process that runs and is a jabberd component: the number of one that ended
/// may be another program's by now.
bool namesLiveComponent(Processes& processes, const std::string& pidFile);

}  // namespace tessard
