#pragma once

#include <cstddef>

#include "common/Value.h"

namespace tessard {

/// About how many bytes of memory a dictionary's content takes.
std::size_t footprintOf(const Dictionary& dictionary);

}  // namespace tessard
