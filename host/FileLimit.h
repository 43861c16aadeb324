#pragma once

#include <cstddef>

namespace tessard {

/// Lets this process have `needed` descriptors where it may have fewer, as far as the machine allows it.
/// Gives how many it may have then.
std::size_t raiseFileLimit(std::size_t needed);

}  // namespace tessard
