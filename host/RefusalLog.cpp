#include "host/RefusalLog.h"

#include "common/Format.h"

namespace tessard {

void RefusalLog::refused(const std::string& sentence, Moment now) {
  tick(now);
  if (now < quietUntil_) {
    ++more_;
    return;
  }
  report_(sentence);
  quietUntil_ = now + kQuiet;
}

void RefusalLog::tick(Moment now) {
  if (more_ == 0 || now < quietUntil_) return;
  report_(fill("Refused %lu further connections.", {more_}));
  more_ = 0;
  quietUntil_ = now + kQuiet;
}

}  // namespace tessard
