#pragma once

#include "common/Unicode.h"

namespace tessard {

/// Unicode properties from GNU libunistring's tables; the process's locale plays no part. Alphanumeric are
/// the general categories L*, M* and N*. Lower case is the full mapping (one character may become several, a
/// sigma at the end of a word is written as such).
class UnistringUnicode : public Unicode {
 public:
  bool isAlphanumeric(char32_t point) override;
  std::string lowercase(std::string_view text) override;
};

}  // namespace tessard
