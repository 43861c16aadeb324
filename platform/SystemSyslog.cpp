#include "platform/SystemSyslog.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace tessard {

void SystemSyslog::write(int priority, const char* format, const std::string& line) {
  ::syslog(priority, format, line.c_str());
}

bool standardErrorIsJournal() {
  // Handed down to all programs, also to those whose standard error is another: so the file itself counts.
  const char* journal = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  return journal != nullptr && ::fstat(STDERR_FILENO, &status) == 0 &&
         journal == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace tessard
