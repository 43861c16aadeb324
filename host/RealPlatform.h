#pragma once

#include <memory>

#include "common/Platform.h"
#include "host/HostConfiguration.h"
#include "platform/DirectoryBundles.h"
#include "platform/LinuxHostNames.h"
#include "platform/LinuxProcesses.h"
#include "platform/OwnerMap.h"
#include "platform/PosixFileSystem.h"
#include "platform/PosixTasks.h"
#include "platform/SystemClock.h"
#include "platform/SystemRandom.h"
#include "platform/SystemSyslog.h"
#include "platform/SystemdTasks.h"
#include "platform/UnistringUnicode.h"
#include "platform/accounts/LibuserDirectory.h"
#include "platform/journal/JournalingFileSystem.h"
#include "platform/keychain/SqliteKeychain.h"
#include "platform/logs/LinuxLogReader.h"

namespace tessard {

/// An ordinary user can give files to nobody else: on that user's scratch root its own ids stand for those of
/// the service's account and of root's group.
OwnerMap ownersForThisUser();

/// The real parts of everything outside, for the system root of a configuration. Where the process is not
/// root's, its own ids stand on disk for those of root and of the service's account.
struct RealPlatform {
  explicit RealPlatform(const HostConfiguration& configuration);
  RealPlatform(const RealPlatform&) = delete;
  RealPlatform& operator=(const RealPlatform&) = delete;

  SystemSyslog syslog;
  Log log{syslog};
  PosixFileSystem files;
  PosixTasks ownTasks;
  PosixTasks unitTasks;         ///< with the patience that a change of a unit is given
  PosixTasks ownQuestionTasks;  ///< with the patience that the machine's tools are given
  // The same, also for programs that need rights which the daemon's unit has not.
  SystemdTasks tasks;
  SystemdTasks questionTasks;
  LibuserDirectory directory;
  SystemClock clock;
  std::unique_ptr<ServiceManager> services;
  LinuxProcesses processes;
  LinuxHostNames hostNames;
  std::unique_ptr<Network> network;
  SystemRandom random;
  UnistringUnicode unicode;
  DirectoryBundles bundles;
  SqliteKeychain keychain;
  LinuxLogReader logs;
  JournalingFileSystem journal;  ///< what the plug-in sees of `files`
  Platform platform{journal, journal, tasks,   *services, processes, hostNames, *network, clock,
                    random,  unicode, bundles, directory, keychain,  logs,      log};
};

}  // namespace tessard
