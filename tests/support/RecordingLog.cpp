#include "tests/support/RecordingLog.h"

#include <algorithm>
#include <ostream>

namespace tessard {

void RecordingLog::write(int priority, const char* format, const std::string& line) {
  writes_.push_back({priority, format, line});
}

void RecordingLog::logged(int level, std::string_view message) {
  messages_.push_back({level, std::string(message)});
}

std::vector<std::string> RecordingLog::lines() const {
  std::vector<std::string> lines;
  lines.reserve(writes_.size());
  for (const Line& line : writes_) lines.push_back(line.text);
  return lines;
}

std::vector<std::string> RecordingLog::messages(int level) const {
  std::vector<std::string> texts;
  for (const Message& message : messages_) {
    if (message.level == level) texts.push_back(message.text);
  }
  return texts;
}

bool RecordingLog::has(int level, std::string_view message) const {
  return std::ranges::any_of(
      messages_, [&](const Message& logged) { return logged.level == level && logged.text == message; });
}

void RecordingLog::clear() {
  writes_.clear();
  messages_.clear();
}

void PrintTo(const RecordingLog::Message& message, std::ostream* out) {
  *out << message.level << ": " << message.text;
}

}  // namespace tessard
