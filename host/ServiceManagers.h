#pragma once

#include <memory>
#include <string>

#include "common/Platform.h"
#include "host/HostConfiguration.h"

namespace tessard {

/// "systemd", "s6" or "none": which of them `chooseServiceManager` takes.
std::string serviceManagerOf(const HostConfiguration& configuration);

/// The service manager that a configuration names: systemd, s6, or the one of a host that has none. Where it
/// names none it is systemd when the system root is "/" and systemd is the machine's first process, and none
/// otherwise: no daemon on a scratch root touches the services of the machine by itself.
///
/// All is borrowed and outlives the manager. `patientTasks` limit how long a unit may take to become ready or
/// to end, where the manager does not do so itself.
std::unique_ptr<ServiceManager> chooseServiceManager(const HostConfiguration& configuration,
                                                     FileSystem& files, Tasks& tasks, Tasks& patientTasks,
                                                     Clock& clock, Log& log);

}  // namespace tessard
