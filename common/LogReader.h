#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// Which lines of a log are wanted.
struct LogQuery {
  std::string path{};
  /// At most so many lines; all that fit into `bytes` when absent.
  std::optional<std::uint64_t> lines{};
  /// At most so many bytes of whole lines, their line ends counted. Read on from a position, the first line
  /// is given whatever its length.
  std::uint64_t bytes = 0;
  /// Texts that a line must hold, all of them, byte for byte.
  std::vector<std::string> filters{};
  /// Where an earlier answer ended: what was written since is wanted, its oldest lines first. Without one the
  /// newest lines are.
  std::optional<std::string> position{};
  /// The number of the process whose lines alone are wanted; not together with a position.
  std::optional<int> sender{};
};

/// What keeps lines that were asked for out of an answer.
enum class LogGap {
  none,
  lines,       ///< there are older ones than `LogQuery::lines`
  bytes,       ///< there are older ones than fit into `LogQuery::bytes`
  search,      ///< there are older ones than a query looks through
  unreadable,  ///< an older file of the log cannot be read
  lost,        ///< some that were written after the position are gone, or may be
};

struct LogExcerpt {
  /// Oldest first, without line ends: UTF-8 that XML can hold. A symbol stands for each control character,
  /// the replacement character for each byte that is no text, and a long line is cut and ends in an ellipsis.
  std::vector<std::string> lines;
  std::string position;  ///< where it ends, for the next query; opaque
  LogGap gap = LogGap::none;
  /// Read on from a position: there is more to be had at once.
  bool more = false;
};

/// Reads the logs of the machine. Every query looks through a limited part of a log, whatever is asked for.
class LogReader {
 public:
  virtual ~LogReader() = default;

  /// ENOENT, EACCES and the like when the log cannot be read; ESPIPE for a position that no answer gave.
  virtual Result<LogExcerpt> read(const LogQuery& query) = 0;
};

}  // namespace tessard
