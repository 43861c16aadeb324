#pragma once

#include "common/Bundles.h"
#include "common/Changes.h"
#include "common/Clock.h"
#include "common/Directory.h"
#include "common/FileSystem.h"
#include "common/HostNames.h"
#include "common/Keychain.h"
#include "common/Log.h"
#include "common/LogReader.h"
#include "common/Network.h"
#include "common/Processes.h"
#include "common/Random.h"
#include "common/Services.h"
#include "common/Tasks.h"
#include "common/Unicode.h"

namespace tessard {

/// Everything outside the plug-in, borrowed from the host. The referred objects outlive every object that is
/// given the platform, and are used on the thread that carries the host's requests.
struct Platform {
  FileSystem& files;
  Changes& changes;  ///< those made through `files`
  Tasks& tasks;
  ServiceManager& services;
  Processes& processes;
  HostNames& hostNames;
  Network& network;
  Clock& clock;
  Random& random;
  Unicode& unicode;
  Bundles& bundles;
  Directory& directory;
  Keychain& keychain;
  LogReader& logs;
  Log& log;

  /// The same with other files.
  Platform withFiles(FileSystem& others) const {
    return {others, changes, tasks,   services,  processes, hostNames, network, clock,
            random, unicode, bundles, directory, keychain,  logs,      log};
  }
};

}  // namespace tessard
