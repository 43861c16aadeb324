#pragma once

#include <string_view>

#include "common/LogReader.h"

namespace tessard {

/// The system's journal as a log: a line "2026-11-21T02:00:27Z HOST NAME[PID]: MESSAGE" for each entry, where
/// NAME[PID] is what the sender called itself. Any thread may call.
class SystemJournal {
 public:
  /// How many entries one query looks through.
  static constexpr int kSearchedEntries = 100'000;

  /// ENOENT when this machine keeps no journal; ESPIPE for a position that the journal does not know the form
  /// of. The query's path is not looked at. A position in a file counts as one whose lines are lost.
  static Result<LogExcerpt> read(const LogQuery& query);

  /// Whether a position is one in the journal.
  static bool isPosition(std::string_view position);
};

}  // namespace tessard
