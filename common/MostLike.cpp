#include "common/MostLike.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "common/Text.h"

namespace tessard {

namespace {

constexpr std::size_t kLikeEnough = 3;  // letters that may be wrong

// The number of letters to change, add or take away for one word to become the other.
std::size_t distanceBetween(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = std::exchange(row[j + 1], std::min({changed, row[j] + 1, row[j + 1] + 1}));
    }
  }
  return row.back();
}

}  // namespace

std::optional<std::string_view> mostLike(std::string_view word, std::span<const std::string_view> known) {
  std::optional<std::string_view> nearest;
  std::size_t distance = kLikeEnough + 1;
  const std::string lower = asciiLowercase(word);
  for (const std::string_view candidate : known) {
    const std::size_t its = distanceBetween(lower, asciiLowercase(candidate));
    if (its >= distance || its >= candidate.size()) continue;
    nearest = candidate;
    distance = its;
  }
  return nearest;
}

}  // namespace tessard
