#include "common/Text.h"

namespace tessard {

std::vector<std::string> componentsOf(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  while (true) {
    const std::size_t end = text.find(separator);
    pieces.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return pieces;
    text.remove_prefix(end + 1);
  }
}

std::string joinedWith(const std::vector<std::string>& pieces, std::string_view separator) {
  std::string joined;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) joined += separator;
    joined += pieces[i];
  }
  return joined;
}

std::string asciiLowercase(std::string_view text) {
  std::string lower(text);
  for (char& character : lower) character = asciiLowercase(character);
  return lower;
}

std::string replacingAll(std::string_view text, std::string_view what, std::string_view replacement) {
  std::string result;
  while (true) {
    const std::size_t at = what.empty() ? std::string_view::npos : text.find(what);
    result += text.substr(0, at);
    if (at == std::string_view::npos) return result;
    result += replacement;
    text.remove_prefix(at + what.size());
  }
}

std::string_view trimmed(std::string_view text, std::string_view characters) {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

}  // namespace tessard
