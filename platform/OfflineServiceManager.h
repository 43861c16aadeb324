#pragma once

#include "common/Services.h"

namespace tessard {

/// The service manager of a host that has none: a scratch root, a container without an init system, a machine
/// on which the plug-in is only configured. It tells the truth of such a host: no unit runs, none can be
/// started, and stopping or disabling one succeeds because nothing runs.
class OfflineServiceManager : public ServiceManager {
 public:
  bool GetLaunchDaemonServiceState(std::string_view label) override;
  bool SetLaunchDaemonServiceState(std::string_view label, bool enable) override;
};

}  // namespace tessard
