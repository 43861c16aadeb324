#pragma once

#include <string>

#include "common/Clock.h"
#include "common/FileSystem.h"
#include "common/Log.h"
#include "common/Services.h"
#include "common/Tasks.h"

namespace tessard {

/// The service manager of a host on which s6-svscan watches one scan directory. A label is the name of a
/// service directory in it. The directory's file "down" keeps the unit from starting with the machine: it is
/// taken away by a start and made by a stop, also when the unit itself does not obey.
///
/// A start succeeds when the unit says that it is ready (by its "notification-fd"), a stop when its process
/// and its "finish" have ended, each within 10 seconds; a unit that fails for good ("finish" exits with 125)
/// fails the start at once. A service directory that s6-svscan has not taken up yet is shown to it first. A
/// label without a service directory cannot be started or stopped and does not run. Every failure is logged.
class S6ServiceManager : public Object, public ServiceManager {
 public:
  /// All is borrowed and outlives this object. The scan directory is a path of the system, below its root.
  S6ServiceManager(FileSystem& files, Tasks& tasks, Clock& clock, Log& log, std::string scanDirectory);

  bool GetLaunchDaemonServiceState(std::string_view label) override;
  bool SetLaunchDaemonServiceState(std::string_view label, bool enable) override;

 private:
  bool start(const std::string& label, const std::string& directory);
  bool stop(const std::string& label, const std::string& directory);
  bool isServiceDirectory(std::string_view label, const std::string& directory);
  bool isSupervised(const std::string& directory);
  bool becomesSupervised(const std::string& directory);
  bool control(const std::string& label, const std::string& directory, bool enable);

  FileSystem& files_;
  Tasks& tasks_;
  Clock& clock_;
  std::string scanDirectory_;
};

}  // namespace tessard
