#pragma once

#include "common/Log.h"
#include "common/Services.h"
#include "common/Tasks.h"

namespace tessard {

/// The service manager of a host that systemd runs. The unit of a label is "LABEL.service".
///
/// A start enables the unit for the next boot too and succeeds when it says that it is ready, a stop disables
/// it and succeeds when it has ended; both only as long as the tasks' time limit lets systemctl wait. What
/// systemctl complains of, a unit that does not exist first of all, is logged, and the change has failed
/// then.
class SystemdServiceManager : public Object, public ServiceManager {
 public:
  /// Both are borrowed and outlive this object. The tasks' time limit is how long a unit may take to become
  /// ready, or to end.
  SystemdServiceManager(Tasks& tasks, Log& log) : Object(log), tasks_(tasks) {}

  bool GetLaunchDaemonServiceState(std::string_view label) override;
  bool SetLaunchDaemonServiceState(std::string_view label, bool enable) override;

 private:
  Tasks& tasks_;
};

}  // namespace tessard
