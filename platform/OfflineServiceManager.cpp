#include "platform/OfflineServiceManager.h"

namespace tessard {

bool OfflineServiceManager::GetLaunchDaemonServiceState(std::string_view /*label*/) {
  return false;
}

bool OfflineServiceManager::SetLaunchDaemonServiceState(std::string_view /*label*/, bool enable) {
  return !enable;
}

}  // namespace tessard
