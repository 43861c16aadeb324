#include "platform/SystemCalls.h"

#include <unistd.h>

#include <memory>

namespace tessard {

namespace {

constexpr std::size_t kCopyingStep = 64UL * 1024;

}  // namespace

Result<void> writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = uninterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return SystemError::last();
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

Result<std::size_t> readUpTo(int descriptor, char* buffer, std::size_t size) {
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t got = uninterrupted([&] { return ::read(descriptor, buffer + filled, size - filled); });
    if (got < 0) return SystemError::last();
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  return filled;
}

Result<void> copyContent(int from, int to) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyingStep);
  while (true) {
    const ssize_t got = uninterrupted([&] { return ::read(from, buffer.get(), kCopyingStep); });
    if (got < 0) return SystemError::last();
    if (got == 0) return {};
    const std::string_view step(buffer.get(), static_cast<std::size_t>(got));
    if (auto written = writeAll(to, step); !written) return written;
  }
}

Result<void> resultOf(int answer) {
  if (answer != 0) return SystemError::last();
  return {};
}

}  // namespace tessard
