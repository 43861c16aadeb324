#include "platform/SystemCalls.h"

#include <unistd.h>

#include <vector>

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
  std::vector<char> buffer(kCopyingStep);
  while (true) {
    const auto got = readUpTo(from, buffer.data(), buffer.size());
    if (!got) return got.error();
    if (got.value() == 0) return {};
    if (auto written = writeAll(to, {buffer.data(), got.value()}); !written) return written;
  }
}

Result<void> resultOf(int answer) {
  if (answer != 0) return SystemError::last();
  return {};
}

}  // namespace tessard
