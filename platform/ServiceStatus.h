#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

/// Where launchers tell how their services are doing, one property list for each label; in memory, so that a
/// boot forgets it.
inline constexpr std::string_view kServiceStatusDirectory = "/run/tessard-services";

/// One program of a service.
struct PartStatus {
  std::string name;
  std::string state;  ///< "waiting" (not begun), "starting", "ready" or "ended"
  pid_t pid = 0;      ///< 0 when it was not begun

  bool operator==(const PartStatus&) const = default;
};

/// What the launcher of a service last said of it.
struct ServiceStatus {
  pid_t pid = 0;       ///< the launcher's
  std::string state;   ///< "starting", "running", "stopping", "restarting" or "failed"
  std::string reason;  ///< a sentence, for a service that restarts or has failed
  std::vector<PartStatus> parts;

  bool operator==(const ServiceStatus&) const = default;
};

/// Makes the status known, in place of an earlier one. The directory is made where it is missing. Fails with
/// the system's error; nobody's service depends on it.
Result<void> publishServiceStatus(FileSystem& files, std::string_view label, const ServiceStatus& status);

/// Takes back what was published; success when there was nothing.
Result<void> withdrawServiceStatus(FileSystem& files, std::string_view label);

/// Label -> status of every service that has published one. What cannot be read is passed over.
std::map<std::string, ServiceStatus> readServiceStatuses(FileSystem& files);

}  // namespace tessard
