#pragma once

#include <string>

#include "common/Log.h"

namespace tessard {

/// What the daemon has to say about itself: one sentence at a time, to the system log and to
/// standard error, unless both are the journal. Standard error holds nobody up: what it does not take at once
/// is in the system log alone.
class HostLog {
 public:
  explicit HostLog(Syslog& syslog) : syslog_(syslog) {}

  void notice(const std::string& sentence);
  void error(const std::string& sentence);

 private:
  void say(int priority, const std::string& sentence);

  Syslog& syslog_;
};

}  // namespace tessard
