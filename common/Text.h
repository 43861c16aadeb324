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

}  // namespace tessard
