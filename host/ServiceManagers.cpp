#include "host/ServiceManagers.h"

#include <systemd/sd-daemon.h>

#include "platform/OfflineServiceManager.h"
#include "platform/S6ServiceManager.h"
#include "platform/SystemdServiceManager.h"

namespace tessard {

std::string serviceManagerOf(const HostConfiguration& configuration) {
  if (!configuration.serviceManager.empty()) return configuration.serviceManager;
  return configuration.root == "/" && sd_booted() > 0 ? "systemd" : "none";
}

std::unique_ptr<ServiceManager> chooseServiceManager(const HostConfiguration& configuration,
                                                     FileSystem& files, Tasks& tasks, Tasks& patientTasks,
                                                     Clock& clock, Log& log) {
  const std::string name = serviceManagerOf(configuration);
  if (name == "systemd") return std::make_unique<SystemdServiceManager>(patientTasks, log);
  if (name == "s6") {
    return std::make_unique<S6ServiceManager>(files, tasks, clock, log, configuration.s6ScanDirectory);
  }
  return std::make_unique<OfflineServiceManager>();
}

}  // namespace tessard
