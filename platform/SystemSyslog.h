#pragma once

#include <chrono>
#include <mutex>

#include "common/Log.h"

namespace tessard {

/// The machine's system log. Whoever runs the process chooses its identity there with openlog(3). A line ends
/// at its first NUL byte. Where no system log listens, as in many containers, that is looked for again after
/// a tenth of a second, and lines until then are dropped. Any thread may call.
class SystemSyslog : public Syslog {
 public:
  void write(int priority, const char* format, const std::string& line) override;

 private:
  bool isThere();

  std::mutex mutex_;
  bool wasThere_ = false;
  std::chrono::steady_clock::time_point nextLook_;
};

/// Whether standard error leads to the journal, which has the lines of the system log too: a sentence that
/// goes to both would stand there twice.
bool standardErrorIsJournal();

}  // namespace tessard
