#include "host/HostLog.h"

#include <limits.h>
#include <poll.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "platform/SystemSyslog.h"

namespace tessard {

namespace {

// A pipe that nobody empties would hold up the daemon for ever: what it does not take at once is left out.
// One that can be written takes at least so many bytes.
void tellOnStandardError(std::string_view line) {
  while (!line.empty()) {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&standardError, 1, 0) != 1 || (standardError.revents & POLLOUT) == 0) return;
    const ssize_t written = ::write(STDERR_FILENO, line.data(), std::min(line.size(), std::size_t{PIPE_BUF}));
    if (written < 0 && errno != EINTR) return;
    if (written > 0) line.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

void HostLog::notice(const std::string& sentence) {
  say(LOG_DAEMON | LOG_NOTICE, sentence);
}

void HostLog::error(const std::string& sentence) {
  say(LOG_DAEMON | LOG_ERR, sentence);
}

void HostLog::say(int priority, const std::string& sentence) {
  if (!standardErrorIsJournal()) tellOnStandardError("tessardd: " + sentence + "\n");
  syslog_.write(priority, "%s", sentence);
}

}  // namespace tessard
