#pragma once

#include <optional>
#include <vector>

#include "common/LogReader.h"

namespace tessard {

/// A reader of logs that notes every query and hands it to another reader, unless it was told what to answer.
class RecordingLogReader : public LogReader {
 public:
  explicit RecordingLogReader(LogReader& real) : real_(real) {}

  std::vector<LogQuery> queries;
  std::optional<Result<LogExcerpt>> answer;

  Result<LogExcerpt> read(const LogQuery& query) override {
    queries.push_back(query);
    return answer ? *answer : real_.read(query);
  }

 private:
  LogReader& real_;
};

}  // namespace tessard
