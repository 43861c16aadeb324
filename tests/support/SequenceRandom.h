#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "common/Random.h"

namespace tessard {

/// Gives the listed numbers in order and then the numbers of a generator that starts the same in every run.
class SequenceRandom : public Random {
 public:
  std::deque<std::uint32_t> next;
  /// How many numbers were drawn.
  int drawn = 0;

  SequenceRandom() = default;
  explicit SequenceRandom(std::deque<std::uint32_t> numbers) : next(std::move(numbers)) {}

  /// Whether the device for secrets can be opened.
  bool hasDevice = true;

  /// Bytes of the generator; the listed numbers are for `arc4random` alone.
  std::optional<std::string> readDevRandom(std::size_t count) override {
    if (!hasDevice) return std::nullopt;
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator_() & 0xFFU);
    return bytes;
  }

  std::uint32_t arc4random() override {
    ++drawn;
    if (next.empty()) return static_cast<std::uint32_t>(generator_());
    const std::uint32_t number = next.front();
    next.pop_front();
    return number;
  }

 private:
  // Its first seed is fixed, so that a failing test fails again.
  std::mt19937 generator_;
};

}  // namespace tessard
