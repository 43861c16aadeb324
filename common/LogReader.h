#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// Which lines of a log are wanted.
struct LogQuery {
  std::string path;
  /// At most so many lines, the newest; all that fit into `bytes` when absent.
  std::optional<std::uint64_t> lines;
  /// At most so many bytes of whole lines, their line ends counted.
  std::uint64_t bytes = 0;
  /// Texts that a line must hold, all of them.
  std::vector<std::string> filters;
  /// Where an earlier answer ended: only what was written since is wanted.
  std::optional<std::string> position;
};

struct LogExcerpt {
  std::vector<std::string> lines;  ///< oldest first, without line ends, valid UTF-8
  std::string position;            ///< where it ends, for the next query; opaque
  /// False when older lines that match were left out for the limits of the query, or lines after its position
  /// are lost.
  bool complete = true;
};

/// Reads the logs of the machine from their end.
class LogReader {
 public:
  virtual ~LogReader() = default;

  /// ENOENT, EACCES and the like when the log cannot be read; EINVAL for a position that no answer gave.
  virtual Result<LogExcerpt> read(const LogQuery& query) = 0;
};

}  // namespace tessard
