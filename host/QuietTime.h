#pragma once

#include <chrono>
#include <optional>

namespace tessard {

/// Puts a burst of notices together: it is over when nothing was noticed for the quiet time, or when it has
/// lasted `kLongest` times that.
class QuietTime {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  static constexpr int kLongest = 5;

  explicit QuietTime(std::chrono::milliseconds quiet) : quiet_(quiet) {}

  void notice(Moment now);

  /// When the burst will be over if nothing else is noticed; absent when there is none.
  std::optional<Moment> end() const;

  void clear() { first_.reset(); }

 private:
  const std::chrono::milliseconds quiet_;
  std::optional<Moment> first_;
  Moment last_;
};

}  // namespace tessard
