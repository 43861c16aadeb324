#pragma once

#include <algorithm>
#include <string_view>

#include "common/Utf8.h"
#include "platform/keychain/KeychainResult.h"

namespace tessard {

/// Success for what can name the purpose of a preferred identity: 1 to 255 bytes of UTF-8 without control
/// characters.
inline KeychainResult<void> checkPreferenceName(std::string_view name) {
  const auto isControl = [](char character) {
    return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
  };
  if (name.empty() || name.size() > 255 || !isUtf8(name) || std::ranges::any_of(name, isControl)) {
    return KeychainError{
        KeychainProblem::invalidRequest,
        "The name of a preferred identity is 1 to 255 bytes of text without control characters"};
  }
  return {};
}

}  // namespace tessard
