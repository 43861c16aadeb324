#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace tessard {

/// Takes an input apart from its beginning. When it has come to its end, numbers are 0 and texts empty.
class FuzzBytes {
 public:
  explicit FuzzBytes(std::string_view bytes) : left_(bytes) {}

  unsigned byte() {
    if (left_.empty()) return 0;
    const auto first = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return first;
  }

  /// A number below `count`, which is not 0.
  std::size_t below(std::size_t count) { return byte() % count; }

  std::string_view take(std::size_t length) {
    const std::string_view taken = left_.substr(0, length);
    left_.remove_prefix(taken.size());
    return taken;
  }

  /// As many bytes as the next byte says.
  std::string text() {
    const std::size_t length = byte();
    return std::string(take(length));
  }

  /// What comes before the next line feed, which is left out.
  std::string_view line() {
    const std::string_view taken = take(std::min(left_.find('\n'), left_.size()));
    byte();
    return taken;
  }

  bool empty() const { return left_.empty(); }
  std::string_view rest() { return take(left_.size()); }

 private:
  std::string_view left_;
};

}  // namespace tessard
