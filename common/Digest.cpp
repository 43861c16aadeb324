#include "common/Digest.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstring>

namespace tessard {

namespace {

// So many sums are kept side by side: a processor multiplies several numbers at a time, but each only when
// the one before it is known.
constexpr std::size_t kLanes = 8;
constexpr std::size_t kBlock = kLanes * sizeof(std::uint64_t);
// The fraction of the golden ratio, odd: no two numbers have the same product with it.
constexpr std::uint64_t kFactor = 0x9e3779b97f4a7c15;

// For each sum another result of each number, and for each number of each sum.
constexpr std::uint64_t mixed(std::uint64_t sum, std::uint64_t number) {
  return std::rotl((sum ^ number) * kFactor, 29);
}

}  // namespace

std::uint64_t digestOf(std::string_view content) {
  std::array<std::uint64_t, kLanes> sums{};
  for (std::size_t lane = 0; lane < kLanes; ++lane) sums[lane] = lane;
  std::uint64_t digest = content.size();
  std::array<std::uint64_t, kLanes> block{};
  for (; content.size() >= kBlock; content.remove_prefix(kBlock)) {
    std::memcpy(block.data(), content.data(), kBlock);
    for (std::size_t lane = 0; lane < kLanes; ++lane) sums[lane] = mixed(sums[lane], block[lane]);
  }
  block = {};
  if (!content.empty()) std::memcpy(block.data(), content.data(), content.size());
  for (std::size_t lane = 0; lane < kLanes; ++lane) digest = mixed(digest, mixed(sums[lane], block[lane]));
  return digest;
}

}  // namespace tessard
