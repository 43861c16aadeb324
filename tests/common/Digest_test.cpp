#include "common/Digest.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tessard {
namespace {

// Longer than what is taken at a time, and no multiple of it.
constexpr std::size_t kLength = 1000;

TEST(ADigest, IsTheSameOfTheSameContent) {
  EXPECT_EQ(digestOf(std::string(kLength, 'a')), digestOf(std::string(kLength, 'a')));
  EXPECT_EQ(digestOf(""), digestOf(std::string()));
}

TEST(ADigest, IsAnotherForEachPlaceAndValueOfOneByteThatDiffers) {
  const std::string content(kLength, 'a');
  std::set<std::uint64_t> seen = {digestOf(content)};
  for (std::size_t i = 0; i < kLength; ++i) {
    for (const char byte : {'b', '\0', '\xff', 'e'}) {
      std::string other = content;
      other[i] = byte;
      EXPECT_TRUE(seen.insert(digestOf(other)).second) << i;
    }
  }
}

TEST(ADigest, IsAnotherForEachLengthAlsoOfZeroes) {
  std::set<std::uint64_t> seen;
  for (std::size_t length = 0; length < kLength; ++length) {
    EXPECT_TRUE(seen.insert(digestOf(std::string(length, '\0'))).second) << length;
  }
}

TEST(ADigest, IsAnotherWhenTwoPartsAreExchanged) {
  const std::string first(64, 'a');
  const std::string second(64, 'b');
  EXPECT_NE(digestOf(first + second), digestOf(second + first));
  EXPECT_NE(digestOf("12345678abcdefgh"), digestOf("abcdefgh12345678"));
}

}  // namespace
}  // namespace tessard
