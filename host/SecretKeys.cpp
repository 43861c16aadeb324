#include "host/SecretKeys.h"

#include <algorithm>
#include <array>
#include <string>

#include "common/Text.h"

namespace tessard {

bool speaksOfSecret(std::string_view key) {
  constexpr std::array<std::string_view, 3> kWords = {"secret", "pass", "privatekey"};
  const std::string lower = asciiLowercase(key);
  return std::ranges::any_of(kWords, [&](std::string_view word) { return lower.find(word) != lower.npos; });
}

}  // namespace tessard
