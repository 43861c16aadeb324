#include "common/Log.h"

#include "common/Format.h"

namespace tessard {

namespace {

// LOG_USER | LOG_NOTICE: one priority for all levels, so that no level is lost to a filter of the system log.
constexpr int kPriority = 13;

const char* letterFor(int level) {
  switch (level) {
    case kLogNotice:
      return "N";
    case kLogWarning:
      return "W";
    case kLogError:
      return "E";
    case kLogDebug:
      return "D";
    default:
      return "I";
  }
}

}  // namespace

void Object::logInfo_source(std::string_view message, std::string_view source) const {
  logMessage_level_source(message, kLogInfo, source);
}

void Object::logNotice_source(std::string_view message, std::string_view source) const {
  logMessage_level_source(message, kLogNotice, source);
}

void Object::logWarning_source(std::string_view message, std::string_view source) const {
  logMessage_level_source(message, kLogWarning, source);
}

void Object::logError_source(std::string_view message, std::string_view source) const {
  logMessage_level_source(message, kLogError, source);
}

void Object::logDebug_source(std::string_view message, std::string_view /*source*/) const {
  if (log_.observer) log_.observer->logged(kLogDebug, message);
}

void Object::logMessage_level_source(std::string_view message, int level, std::string_view /*source*/) const {
  if (log_.observer) log_.observer->logged(level, message);
  log_.syslog.write(kPriority, "%s", fill("tessard_notification[%@]: %@", {letterFor(level), message}));
}

}  // namespace tessard
