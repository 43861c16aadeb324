#pragma once

#include <string>
#include <string_view>

namespace tessard {

/// True when every byte belongs to a well-formed UTF-8 sequence (shortest form, no surrogates, at most
/// U+10FFFF).
bool isUtf8(std::string_view bytes);

/// The code points of a text; bytes that are not UTF-8 become U+FFFD.
std::u32string decodeUtf8(std::string_view bytes);

/// Appends a code point as UTF-8.
void appendUtf8(std::string& out, char32_t point);

/// True for UTF-8 that an XML 1.0 document can hold: no control characters but tab, line feed and carriage
/// return, no U+FFFE or U+FFFF. What fails here can be written neither to a component file nor to a property
/// list.
bool isXmlText(std::string_view bytes);

}  // namespace tessard
