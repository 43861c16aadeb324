#include "platform/SystemSyslog.h"

#include <syslog.h>

namespace tessard {

void SystemSyslog::write(int priority, const char* format, const std::string& line) {
  ::syslog(priority, format, line.c_str());
}

}  // namespace tessard
