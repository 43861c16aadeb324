#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/logs/LogFile.h"

namespace tessard {

/// A line of a log file as its bytes are.
struct LogLine {
  std::string_view text;   ///< without its end, at most `kLogLineLimit` bytes; valid until the next line
  std::uint64_t size = 0;  ///< all its bytes in the file, its end included
  bool cut = false;        ///< it is longer than `text`
  bool terminated = true;  ///< it has an end
};

/// What is shown, and searched, of a longer line.
inline constexpr std::size_t kLogLineLimit = std::size_t{16} * 1024;

/// Reads the lines of a file one by one, in blocks, either backwards from its end or forwards from an offset.
/// File and meter are borrowed.
class LogLines {
 public:
  /// Where `next` begins, or `previous` ends.
  LogLines(const LogFile& file, LogMeter& meter, std::uint64_t offset)
      : file_(file), meter_(meter), cursor_(offset) {}

  /// The line before the cursor, which moves to its beginning; the line after it, and the cursor moves to its
  /// end. Nothing where there is none, the meter is exhausted, or the file cannot be read (on).
  std::optional<LogLine> previous();
  std::optional<LogLine> next();

  std::uint64_t cursor() const { return cursor_; }

 private:
  bool holds(std::uint64_t offset) const {
    return offset >= blockBegin_ && offset < blockBegin_ + block_.size();
  }
  bool load(std::uint64_t begin, std::uint64_t end);
  std::optional<std::uint64_t> beginningOfLine(std::uint64_t end);
  std::optional<std::uint64_t> endOfLine(std::uint64_t begin);
  std::optional<LogLine> line(std::uint64_t begin, std::uint64_t end, bool terminated);

  const LogFile& file_;
  LogMeter& meter_;
  std::uint64_t cursor_;
  std::uint64_t blockBegin_ = 0;
  std::string block_;
  std::string straddling_;
};

/// What is shown of a line, see `LogExcerpt::lines`.
std::string shownLine(std::string_view text, bool cut);

}  // namespace tessard
