#pragma once

#include "common/Log.h"

namespace tessard {

/// The machine's system log. Whoever runs the process chooses its identity there with openlog(3). A line ends
/// at its first NUL byte.
class SystemSyslog : public Syslog {
 public:
  void write(int priority, const char* format, const std::string& line) override;
};

/// Whether standard error leads to the journal, which has the lines of the system log too: a sentence that
/// goes to both would stand there twice.
bool standardErrorIsJournal();

}  // namespace tessard
