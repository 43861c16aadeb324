#pragma once

#include <string>
#include <string_view>

namespace tessard {

/// Properties of Unicode characters.
class Unicode {
 public:
  virtual ~Unicode() = default;

  /// A letter, mark or digit.
  virtual bool isAlphanumeric(char32_t point) = 0;

  /// The text in lower case, without regard to any language. Malformed UTF-8 becomes U+FFFD.
  virtual std::string lowercase(std::string_view text) = 0;
};

}  // namespace tessard
