#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"

namespace tessard {

/// How grave a line of a log is, the gravest first. The numbers are those of syslog.
enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

/// "error", "warning", "notice", "info" or "debug".
std::string_view nameOf(LogLevel level);
std::optional<LogLevel> logLevelNamed(std::string_view name);

/// A line of the system log or of the journal, taken apart.
struct LogLine {
  std::optional<Date> time{};
  std::string program{};    ///< as it calls itself: "jabberd_notification/c2s"; empty when that is not told
  std::string component{};  ///< as people call it: "c2s", "sm", "pubsub", "tessardd", "plugin", ...
  std::optional<int> process{};
  std::optional<LogLevel> level{};  ///< where the log, or the line itself, tells it
  std::string message{};
};

/// Takes a line apart: a time (RFC 3339, or the old form without a year, which is then the last one before
/// `now`, by this machine's clock), what else the log puts there (host, and the level as a number of syslog's
/// or a word of its), NAME[PID]: and the message. What is of another form is all message.
LogLine parseLogLine(std::string_view line, Date now);

/// The moment of --since: "90s", "10m", "2h", "3d" before `now`, a date, a date with a time, or a time of
/// today ("2026-11-21", "2026-11-21 10:00", "2026-11-21T10:00:00Z", "10:00"); without a zone this machine's.
std::optional<Date> parseSince(const std::string& text, Date now);

/// What lines of several logs are wanted.
struct LogSelection {
  std::optional<LogLevel> level{};        ///< this one and graver; a line that tells none counts as a notice
  std::vector<std::string> components{};  ///< any of these; "sm" is every "sm_DOMAIN" too
  std::optional<Date> since{};

  bool wants(const LogLine& line) const;
};

}  // namespace tessard
