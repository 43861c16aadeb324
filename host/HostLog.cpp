#include "host/HostLog.h"

#include <sys/syslog.h>

#include <cstdio>

#include "platform/SystemSyslog.h"

namespace tessard {

void HostLog::notice(const std::string& sentence) {
  say(LOG_DAEMON | LOG_NOTICE, sentence);
}

void HostLog::error(const std::string& sentence) {
  say(LOG_DAEMON | LOG_ERR, sentence);
}

void HostLog::say(int priority, const std::string& sentence) {
  if (!standardErrorIsJournal()) std::fprintf(stderr, "tessardd: %s\n", sentence.c_str());
  syslog_.write(priority, "%s", sentence);
}

}  // namespace tessard
