#include "platform/accounts/AccountNames.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "common/Utf8.h"

namespace tessard {

namespace {

// What a record of a login can hold with its end.
constexpr std::size_t kNameLimit = 31;

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

bool isNameCharacter(char character) {
  return isDigit(character) || (character >= 'a' && character <= 'z') ||
         (character >= 'A' && character <= 'Z') || character == '.' || character == '_' || character == '-';
}

}  // namespace

bool isAccountName(std::string_view name) {
  if (name.empty() || name.size() > kNameLimit || name.front() == '-' || name.front() == '.') return false;
  return std::ranges::all_of(name, isNameCharacter) && !std::ranges::all_of(name, isDigit);
}

bool isAccountText(std::string_view text) {
  const auto isRefused = [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F || character == ':';
  };
  return std::ranges::none_of(text, isRefused) && isUtf8(text);
}

std::optional<id_t> accountNumber(std::string_view text) {
  id_t number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (problem != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (text.size() > 1 && text.front() == '0') return std::nullopt;
  if (number == std::numeric_limits<id_t>::max()) return std::nullopt;
  return number;
}

}  // namespace tessard
