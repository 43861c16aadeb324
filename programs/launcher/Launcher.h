#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/LinuxProcesses.h"
#include "platform/PosixFileSystem.h"
#include "programs/launcher/InstancePlan.h"
#include "programs/launcher/InstanceStatus.h"
#include "programs/launcher/LauncherOptions.h"

namespace tessard {

/// Exit statuses of the launcher; service managers are configured by their numbers.
enum LauncherStatus : int {
  kLauncherStopped = 0,
  kLauncherStartFailed = 69,    ///< EX_UNAVAILABLE: starting again would fail again
  kLauncherSystemRefused = 71,  ///< EX_OSERR
  kLauncherLostPart = 75,       ///< EX_TEMPFAIL: a component ended after the instance was ready
  kLauncherBadFiles = 78,       ///< EX_CONFIG
};

/// One run of the private jabberd instance. The components come up in order, are watched, and end with it.
class Launcher {
 public:
  /// Says one sentence to the system log and to standard error.
  using Say = std::function<void(const std::string& sentence)>;

  Launcher(LauncherOptions options, Say say);

  /// Runs the instance until TERM, INT or HUP comes or a component ends. Returns a `LauncherStatus`; no
  /// component runs and no pid file of one is left then. Call it once, as root, on the only thread, with
  /// these signals and CHLD blocked.
  int run();

 private:
  using Time = std::chrono::steady_clock::time_point;
  enum class Event { none, stopWanted, partEnded, late };

  std::optional<int> prepare();
  int refuse(const std::string& reason, int status);
  void blame(const std::string& sentence);
  std::optional<std::string> clearDeadRun();
  std::optional<int> bringUp();
  Event start(Component::Kind first, Component::Kind last);
  Event waitFor(const std::function<bool()>& condition, Time end);
  Event nextEvent(std::chrono::milliseconds patience);
  bool reapParts();
  bool allListen();
  bool allServe();
  bool isServed(const Component& client, const std::string& domain);
  int failedStart(Event event);
  int endAll(int status);
  void signalAll(int number);
  void removePidFiles();
  void tellReady();

  const LauncherOptions options_;
  const Say say_;
  PosixFileSystem files_{"/"};
  LinuxProcesses processes_{files_};
  InstanceStatus status_{files_};
  std::vector<Component> components_;
  std::map<pid_t, const Component*> running_;
  std::map<std::string, bool> served_;
  bool stopping_ = false;
};

}  // namespace tessard
