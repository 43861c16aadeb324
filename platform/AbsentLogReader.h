#pragma once

#include <cerrno>

#include "common/LogReader.h"

namespace tessard {

/// A machine without logs.
class AbsentLogReader : public LogReader {
 public:
  Result<LogExcerpt> read(const LogQuery& /*query*/) override { return SystemError(ENODEV); }
};

}  // namespace tessard
