#include "platform/SystemSyslog.h"

#include <paths.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace tessard {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};

}  // namespace

// Without this each line would try to connect, which takes longer than all else that is done for it.
bool SystemSyslog::isThere() {
  const std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now < nextLook_) return wasThere_;
  nextLook_ = now + kBetweenLooks;
  wasThere_ = ::access(_PATH_LOG, F_OK) == 0;
  return wasThere_;
}

void SystemSyslog::write(int priority, const char* format, const std::string& line) {
  if (!isThere()) return;
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
