#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessard {

/// The standard alphabet of RFC 4648, padded, in one line.
std::string encodeBase64(std::string_view bytes);

/// The bytes of a padded base64 text. Absent for anything else: other characters (blanks and line ends
/// included), missing padding, or bits left over that are not zero.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace tessard
