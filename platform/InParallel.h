#pragma once

#include <cstddef>
#include <functional>

namespace tessard {

/// Calls `work` once for each number below `count`, in no order, and returns when all calls have returned.
/// Many are shared between two threads where there are two processors, so `work` may be called by both at
/// once. What it throws is thrown here; some numbers may then be left out.
void inParallel(std::size_t count, const std::function<void(std::size_t)>& work);

}  // namespace tessard
