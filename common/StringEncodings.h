#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessard {

enum class StringEncoding { utf8, ascii, isoLatin1, utf16, utf32 };

/// The bytes as UTF-8; absent when they are no text of the encoding: a byte above 127 in ASCII, a cut-off
/// unit, a surrogate without its other half, a number that is no code point. UTF-16 and UTF-32 begin with the
/// high byte unless a byte order mark, which is left out, says otherwise. No bytes are an empty text, and a
/// NUL is a character like any other.
std::optional<std::string> decodeString(std::string_view bytes, StringEncoding encoding);

}  // namespace tessard
