#include "host/RequestLog.h"

#include "common/Format.h"

namespace tessard {

RequestLog::RequestLog(Log& log) : log_(log), previous_(log.observer) {
  log_.observer = this;
}

RequestLog::~RequestLog() {
  log_.observer = previous_;
}

void RequestLog::logged(int level, std::string_view message) {
  if (previous_) previous_->logged(level, message);
  if (level != kLogWarning && level != kLogError) return;
  if (lines_.size() == kLineLimit) {
    ++dropped_;
    return;
  }
  lines_.emplace_back(
      Dictionary{{"level", level == kLogWarning ? "warning" : "error"}, {"message", message}});
}

Array RequestLog::lines() const {
  Array lines = lines_;
  if (dropped_ > 0) {
    lines.emplace_back(Dictionary{
        {"level", "warning"}, {"message", fill("%lu further lines are in the system log only", {dropped_})}});
  }
  return lines;
}

}  // namespace tessard
