#include "platform/UnistringUnicode.h"

#include <unicase.h>
#include <unictype.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "common/Utf8.h"

namespace tessard {

bool UnistringUnicode::isAlphanumeric(char32_t point) {
  constexpr std::uint32_t kAlphanumeric = UC_CATEGORY_MASK_L | UC_CATEGORY_MASK_M | UC_CATEGORY_MASK_N;
  return uc_is_general_category_withtable(point, kAlphanumeric);
}

std::string UnistringUnicode::lowercase(std::string_view text) {
  const std::u32string decoded = decodeUtf8(text);
  const std::vector<std::uint32_t> points(decoded.begin(), decoded.end());
  if (points.empty()) return {};

  std::size_t length = 0;
  // A null language and a null normalization form: no special casing, no recomposition.
  const std::unique_ptr<std::uint32_t, decltype(&std::free)> lowered(
      u32_tolower(points.data(), points.size(), nullptr, nullptr, nullptr, &length), &std::free);
  if (!lowered) throw std::bad_alloc();  // well-formed input can fail in no other way

  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < length; ++i) appendUtf8(result, lowered.get()[i]);
  return result;
}

}  // namespace tessard
