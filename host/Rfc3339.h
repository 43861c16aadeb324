#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Value.h"

namespace tessard {

/// "2026-11-21T02:00:27Z"; a fraction of a second, when there is one, with six digits.
std::string formatRfc3339(Date date);

/// A moment with a zone ("Z" or an offset) and at most microseconds; further digits are cut off. Absent for
/// anything else, such as the 30th of February, a second 60 or a missing zone.
std::optional<Date> parseRfc3339(std::string_view text);

}  // namespace tessard
