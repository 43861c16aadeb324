#pragma once

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "common/Result.h"

namespace tessard {

/// Calls again for as long as a signal interrupts the call. Not for close(2), which has closed even then.
template <class Operation>
auto uninterrupted(Operation operation) {
  auto answer = operation();
  while (answer == -1 && errno == EINTR) answer = operation();
  return answer;
}

/// Writes every byte, however many calls it takes.
Result<void> writeAll(int descriptor, std::string_view bytes);

/// Reads up to `size` bytes, fewer at the end of the file only.
Result<std::size_t> readUpTo(int descriptor, char* buffer, std::size_t size);

/// Reads one file from where it stands to its end, and writes all of that to the other.
Result<void> copyContent(int from, int to);

/// Success for 0, and the error that has just happened on this thread otherwise.
Result<void> resultOf(int answer);

}  // namespace tessard
