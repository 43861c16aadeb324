#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "common/FileSystem.h"
#include "host/HostLog.h"
#include "host/NetworkChange.h"
#include "host/NetworkWatch.h"
#include "host/QuietTime.h"
#include "host/WorkSlot.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Follows the machine's name and addresses and tells every change of them once: when the burst of notices
/// that came with it is over, and only when something is then another than before. It has a thread that
/// waits; changes are told as jobs of the work slot, in turn with the requests.
///
/// The host name that the services go by is remembered in `kSettledHostFile`, so that a change which was made
/// while the daemon did not run is told after its start. Addresses are not: those at the start are the first
/// ones.
class NetworkMonitor {
 public:
  /// Hands a change to the plug-ins, on the slot's thread; must not throw. False when one of them could not
  /// take it, or there is none: it is then told again with the next burst or the next start.
  using Deliver = std::function<bool(const NetworkChangeContext&)>;

  /// `root` is a path of the machine, `quiet` the time without notices after which a burst is over (see
  /// `QuietTime`); all else is borrowed and outlives the monitor.
  NetworkMonitor(const std::string& root, std::chrono::milliseconds quiet, HostNames& names,
                 FileSystem& files, WorkSlot& slot, HostLog& log, Deliver deliver);
  NetworkMonitor(const NetworkMonitor&) = delete;
  NetworkMonitor& operator=(const NetworkMonitor&) = delete;
  ~NetworkMonitor() { stop(); }

  /// Takes the network as it is for the state before all changes, and begins to watch. Called once. Fails
  /// when the network cannot be looked at.
  Result<void> start();

  /// Ends the watching; does nothing when it was not begun. Must not be called on the slot's thread. Waits
  /// for a change that is being told, so stop the slot before it.
  void stop();

 private:
  void watch();
  void lookAfterBurst();
  void tellChange();
  std::optional<NetworkSnapshot> look();
  void remember(const NetworkRecord& record);
  void sayOnce(const std::string& problem);

  // All is used by the thread, and by its jobs while it waits for them.
  FileSystem& files_;
  WorkSlot& slot_;
  HostLog& log_;
  const Deliver deliver_;
  NetworkWatch watch_;
  QuietTime burst_;
  NetworkRecord record_;
  std::optional<std::string> storedHost_;
  std::string lastProblem_;
  FileDescriptor stopEvent_;
  std::thread thread_;
};

}  // namespace tessard
