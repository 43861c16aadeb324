#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/LogReader.h"

namespace tessard {

/// The lines of one answer, as far as they are wanted and fit. The query is borrowed.
class LogGathering {
 public:
  /// `filters`: further texts that a line must hold.
  explicit LogGathering(const LogQuery& query, std::vector<std::string> filters = {});

  bool wants(std::string_view line) const;
  bool isFull() const { return query_.lines && lines_.size() >= *query_.lines; }
  bool isEmpty() const { return lines_.empty(); }
  bool hasRoomFor(std::string_view line) const { return bytes_ + line.size() + 1 <= query_.bytes; }

  /// Keeps what is shown of a line, see `shownLine`.
  void add(std::string_view line, bool cut);

  /// The kept lines in the order in which they were added, or the other way round.
  std::vector<std::string> take() { return std::move(lines_); }
  std::vector<std::string> takeReversed();

 private:
  const LogQuery& query_;
  std::vector<std::string> filters_;
  std::vector<std::string> lines_;
  std::uint64_t bytes_ = 0;
};

}  // namespace tessard
