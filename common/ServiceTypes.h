#pragma once

#include "common/Value.h"

namespace tessard {

/// The flat dictionary of service settings that atoms read and write.
using SettingsDictionary = Dictionary;

/// States of a service. `ServiceStateUnknown` comes with the system error number set when asking failed.
enum ServiceState : int {
  ServiceStateUnknown = -1,
  ServiceStateStopped = 0,
  ServiceStateRunning = 2,
};

/// What `startStopServices_serviceAction` is asked to do; every value but start means stop.
enum ServiceAction : int {
  kServiceActionStop = 0,
  kServiceActionStart = 1,
};

/// Result codes of starting and stopping.
enum StartStopResult : int {
  kStartStopSucceeded = 0,
  kFailedToStop = 100004,
  kFailedToStart = 100005,
};

/// Codes that a settings write leaves in its out-slot.
enum WriteStatus : int {
  kWriteSucceeded = 0,
  kSavedChatsDirectoryUnusable = 13,
};

}  // namespace tessard
