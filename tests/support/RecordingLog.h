#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/Log.h"

namespace tessard {

/// A system log that keeps what is written, and an observer that keeps what is logged. Hand it to classes as
/// their `Log&`.
class RecordingLog : public Syslog, public LogObserver {
 public:
  struct Line {
    int priority;
    std::string format;
    std::string text;
  };
  struct Message {
    int level;
    std::string text;
    bool operator==(const Message&) const = default;
  };

  operator Log&() { return log_; }

  void write(int priority, const char* format, const std::string& line) override;
  void logged(int level, std::string_view message) override;

  /// The whole lines that went to the system log, such as "tessard_notification[E]: ...".
  std::vector<std::string> lines() const;
  /// The same with priority and format.
  const std::vector<Line>& writes() const { return writes_; }

  /// The plain messages of one level, debug messages included, in order.
  std::vector<std::string> messages(int level) const;
  /// The messages of all levels in order.
  const std::vector<Message>& messages() const { return messages_; }

  /// Whether some message of the level is exactly this.
  bool has(int level, std::string_view message) const;

  void clear();

 private:
  std::vector<Line> writes_;
  std::vector<Message> messages_;
  Log log_{*this, this};
};

void PrintTo(const RecordingLog::Message& message, std::ostream* out);

}  // namespace tessard
