#pragma once

#include <string>
#include <string_view>

namespace tessard {

/// Levels of the logging category. Their numbers are part of its interface.
enum LogLevel : int {
  kLogInfo = 0,
  kLogNotice = 1,
  kLogWarning = 2,
  kLogError = 3,
  kLogDebug = 4,
};

/// The system log.
class Syslog {
 public:
  virtual ~Syslog() = default;
  /// Writes one line: `format` with its only placeholder, "%s", standing for `line`.
  virtual void write(int priority, const char* format, const std::string& line) = 0;
};

/// Sees every message before it is written or, for debug messages, discarded. The message is the plain one,
/// without the line's prefix. Called on the thread that logs.
class LogObserver {
 public:
  virtual ~LogObserver() = default;
  virtual void logged(int level, std::string_view message) = 0;
};

/// Where log lines go. Both parts are borrowed and must outlive the objects that log; the observer may be
/// null and may be exchanged between requests.
struct Log {
  Syslog& syslog;
  LogObserver* observer = nullptr;
};

/// Root of every class of the plug-in: gives it the logging category. The source argument is ignored.
class Object {
 public:
  explicit Object(Log& log) : log_(log) {}
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  void logInfo_source(std::string_view message, std::string_view source) const;
  void logNotice_source(std::string_view message, std::string_view source) const;
  void logWarning_source(std::string_view message, std::string_view source) const;
  void logError_source(std::string_view message, std::string_view source) const;
  /// Writes nothing: debug lines are discarded once the observer has seen them.
  void logDebug_source(std::string_view message, std::string_view source) const;

  /// Writes "tessard_notification[L]: message" with priority 13 (facility user, severity notice) for every
  /// level. L is N, W, E, D for 1, 2, 3, 4 and I for every other number.
  void logMessage_level_source(std::string_view message, int level, std::string_view source) const;

 private:
  Log& log_;
};

}  // namespace tessard
