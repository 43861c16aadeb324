#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessard {

/// The pieces between the separators, empty ones included; always at least one.
std::vector<std::string> componentsOf(std::string_view text, char separator);

std::string joinedWith(const std::vector<std::string>& pieces, std::string_view separator);

/// The text with every occurrence of `what` replaced.
std::string replacingAll(std::string_view text, std::string_view what, std::string_view replacement);

/// The text without the listed characters at both ends.
std::string_view trimmed(std::string_view text, std::string_view characters);

/// Letters of ASCII in lower case; every other character as it is. For words of protocols and files, whatever
/// the locale; names of people's making are `Unicode`'s.
constexpr char asciiLowercase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}
std::string asciiLowercase(std::string_view text);

}  // namespace tessard
