#include "platform/logs/LogGathering.h"

#include <algorithm>
#include <utility>

#include "platform/logs/LogLines.h"

namespace tessard {

LogGathering::LogGathering(const LogQuery& query, std::vector<std::string> filters)
    : query_(query), filters_(std::move(filters)) {
  filters_.insert(filters_.end(), query.filters.begin(), query.filters.end());
}

bool LogGathering::wants(std::string_view line) const {
  return std::ranges::all_of(
      filters_, [&](const std::string& filter) { return line.find(filter) != std::string_view::npos; });
}

void LogGathering::add(std::string_view line, bool cut) {
  lines_.push_back(shownLine(line, cut));
  bytes_ += line.size() + 1;
}

std::vector<std::string> LogGathering::takeReversed() {
  std::ranges::reverse(lines_);
  return take();
}

}  // namespace tessard
