#include "host/QuietTime.h"

#include <algorithm>

namespace tessard {

void QuietTime::notice(Moment now) {
  if (!first_) first_ = now;
  last_ = now;
}

std::optional<QuietTime::Moment> QuietTime::end() const {
  if (!first_) return std::nullopt;
  return std::min(last_ + quiet_, *first_ + kLongest * quiet_);
}

}  // namespace tessard
