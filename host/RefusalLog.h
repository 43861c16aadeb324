#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace tessard {

/// Tells of refused connections, without a line for each of many: the first one is told at once, those of the
/// minute after it are counted, and their number is told at its end. One thread.
class RefusalLog {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kQuiet{60};

  explicit RefusalLog(std::function<void(const std::string&)> report) : report_(std::move(report)) {}

  void refused(const std::string& sentence, Moment now);

  /// Tells the number of those that were counted when it is time.
  void tick(Moment now);

  /// Whether there is something to tell later.
  bool isPending() const { return more_ > 0; }

 private:
  const std::function<void(const std::string&)> report_;
  Moment quietUntil_;
  std::size_t more_ = 0;
};

}  // namespace tessard
