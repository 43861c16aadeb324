#include "host/ctl/LogLine.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <utility>

#include "common/Text.h"
#include "host/Rfc3339.h"

namespace tessard {

namespace {

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::int64_t kDay = 86'400;
constexpr std::size_t kWordsBeforeName = 2;  // host and level

// Syslog's three gravest are errors to people, too.
constexpr std::array<std::pair<std::string_view, LogLevel>, 13> kWords = {{
    {"emerg", LogLevel::error},
    {"alert", LogLevel::error},
    {"crit", LogLevel::error},
    {"err", LogLevel::error},
    {"error", LogLevel::error},
    {"warning", LogLevel::warning},
    {"notice", LogLevel::notice},
    {"info", LogLevel::info},
    {"debug", LogLevel::debug},
    {"E", LogLevel::error},
    {"W", LogLevel::warning},
    {"N", LogLevel::notice},
    {"I", LogLevel::info},
}};

std::optional<LogLevel> levelOfWord(std::string_view word) {
  if (word == "D") return LogLevel::debug;
  const auto found = std::ranges::find(kWords, word, &std::pair<std::string_view, LogLevel>::first);
  return found == kWords.end() ? std::nullopt : std::optional(found->second);
}

std::optional<int> numberIn(std::string_view text) {
  int number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || read.ec != std::errc() || read.ptr != text.data() + text.size() || number < 0) {
    return std::nullopt;
  }
  return number;
}

// "29" of the facility and level together, or "err".
std::optional<LogLevel> levelOf(std::string_view word) {
  if (const auto number = numberIn(word)) {
    constexpr int kLevels = 8;
    return static_cast<LogLevel>(std::max(*number % kLevels, static_cast<int>(LogLevel::error)));
  }
  return word.size() > 1 ? levelOfWord(word) : std::nullopt;
}

std::string_view firstWord(std::string_view text) {
  return text.substr(0, text.find(' '));
}

std::string_view behind(std::string_view text, std::size_t length) {
  text.remove_prefix(std::min(length, text.size()));
  while (text.starts_with(' ')) text.remove_prefix(1);
  return text;
}

std::optional<Date> localTime(std::tm parts) {
  parts.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&parts);
  if (seconds == -1) return std::nullopt;
  return Date{static_cast<std::int64_t>(seconds) * kSecond};
}

// Reads the whole of a text, or a text's beginning; the rest is left.
std::optional<std::tm> partsOf(std::string_view& text, const char* form, const std::tm& otherwise) {
  std::tm parts = otherwise;
  const std::string copy(text.substr(0, std::min<std::size_t>(text.size(), 32)));
  const char* end = strptime(copy.c_str(), form, &parts);
  if (!end) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - copy.c_str()));
  return parts;
}

std::tm localPartsOf(Date moment) {
  const auto seconds = static_cast<std::time_t>(moment.microsecondsSince1970 / kSecond);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  return parts;
}

// "Nov 21 10:00:00", which is in no year.
std::optional<Date> takeOldTime(std::string_view& text, Date now) {
  std::tm thisYear{};
  thisYear.tm_year = localPartsOf(now).tm_year;
  auto parts = partsOf(text, "%b %e %H:%M:%S", thisYear);
  if (!parts) return std::nullopt;
  auto time = localTime(*parts);
  if (time && time->microsecondsSince1970 > now.microsecondsSince1970 + kDay * kSecond) {
    --parts->tm_year;
    time = localTime(*parts);
  }
  return time;
}

std::optional<Date> takeTime(std::string_view& text, Date now) {
  if (const auto time = parseRfc3339(firstWord(text))) {
    text = behind(text, firstWord(text).size());
    return time;
  }
  const auto time = takeOldTime(text, now);
  text = behind(text, 0);
  return time;
}

// "jabberd_notification/c2s[12]:" or "tessardd:".
bool takeName(std::string_view word, LogLine& line) {
  if (word.size() < 2 || !word.ends_with(':')) return false;
  word.remove_suffix(1);
  if (word.ends_with(']')) {
    const auto bracket = word.rfind('[');
    if (bracket == std::string_view::npos || bracket == 0) return false;
    line.process = numberIn(word.substr(bracket + 1, word.size() - bracket - 2));
    if (!line.process) return false;
    word = word.substr(0, bracket);
  }
  line.program = word;
  return true;
}

std::string componentOf(std::string_view program) {
  constexpr std::string_view kPublishSubscribe = "pubsub_notification/";
  if (program.starts_with(kPublishSubscribe)) {
    const std::string_view part = program.substr(kPublishSubscribe.size());
    return part == "component" ? "pubsub" : "pubsub-" + std::string(part);
  }
  const auto slash = program.rfind('/');
  return std::string(slash == std::string_view::npos ? program : program.substr(slash + 1));
}

// "tessard_notification[E]: ", with which the plug-in begins what the daemon logs for it.
void takePluginsMark(LogLine& line) {
  const std::string_view text = line.message;
  const auto mark = text.find("]: ");
  if (line.program != "tessardd" || !text.starts_with("tessard_") || mark == std::string_view::npos) return;
  const auto bracket = text.rfind('[', mark);
  const auto level = bracket == std::string_view::npos
                         ? std::nullopt
                         : levelOfWord(text.substr(bracket + 1, mark - bracket - 1));
  if (!level) return;
  line.component = "plugin";
  line.level = level;
  line.message = std::string(text.substr(mark + 3));
}

}  // namespace

std::string_view nameOf(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "error";
    case LogLevel::warning:
      return "warning";
    case LogLevel::notice:
      return "notice";
    case LogLevel::info:
      return "info";
    case LogLevel::debug:
      break;
  }
  return "debug";
}

std::optional<LogLevel> logLevelNamed(std::string_view name) {
  const auto level = levelOfWord(name);
  return level && nameOf(*level) == name ? level : std::nullopt;
}

LogLine parseLogLine(std::string_view text, Date now) {
  LogLine line;
  line.message = text;
  line.time = takeTime(text, now);
  if (!line.time) return line;
  line.message = text;
  std::optional<LogLevel> level;
  for (std::size_t word = 0; word <= kWordsBeforeName; ++word) {
    const std::string_view next = firstWord(text);
    text = behind(text, next.size());
    if (!takeName(next, line)) {
      level = levelOf(next);
      continue;
    }
    line.level = level;
    line.component = componentOf(line.program);
    line.message = text;
    takePluginsMark(line);
    break;
  }
  return line;
}

std::optional<Date> parseSince(const std::string& text, Date now) {
  if (text.empty()) return std::nullopt;
  constexpr std::array<std::pair<char, std::int64_t>, 4> kUnits = {
      {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', kDay}}};
  constexpr int kMost = 1'000'000;
  for (const auto& [letter, seconds] : kUnits) {
    const auto number =
        text.back() == letter ? numberIn(std::string_view(text).substr(0, text.size() - 1)) : std::nullopt;
    if (number && *number <= kMost) return Date{now.microsecondsSince1970 - *number * seconds * kSecond};
  }
  if (auto moment = parseRfc3339(text)) return moment;
  std::tm midnight = localPartsOf(now);
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  for (const char* form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M",
                           "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    std::string_view rest = text;
    const auto parts = partsOf(rest, form, midnight);
    if (parts && rest.empty()) return localTime(*parts);
  }
  return std::nullopt;
}

bool LogSelection::wants(const LogLine& line) const {
  if (level && line.level.value_or(LogLevel::notice) > *level) return false;
  if (since && line.time && line.time->microsecondsSince1970 < since->microsecondsSince1970) return false;
  return components.empty() || std::ranges::any_of(components, [&](const std::string& wanted) {
           return line.component == wanted || line.component.starts_with(wanted + "_");
         });
}

}  // namespace tessard
