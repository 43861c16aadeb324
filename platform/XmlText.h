#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessard {

/// The encodings that a document may be in: UTF-8 and the two one-byte encodings that expat knows.
enum class XmlEncoding : std::uint8_t { utf8, latin1, ascii };

/// True when nothing but blanks, tabs and line ends is there (references do not count as such).
bool isXmlWhite(std::string_view raw);

/// Position of the last line end ("\n", "\r\n" or "\r"), npos when there is none.
std::size_t lastLineEnd(std::string_view raw);

/// True for a line end after nothing but blanks and tabs.
bool beginsWithLineEnd(std::string_view raw);

/// The UTF-8 of plain bytes in an encoding.
std::string toUtf8(std::string_view bytes, XmlEncoding encoding);

/// The text that markup stands for: references and CDATA resolved, line ends made "\n", as UTF-8.
std::string decodeXmlText(std::string_view raw, XmlEncoding encoding);

/// The value of an attribute written as `raw` (without quotes): as above, and white space made blanks.
std::string decodeXmlAttribute(std::string_view raw, XmlEncoding encoding);

/// The markup, as UTF-8, that stands for a text between tags.
std::string escapeXmlText(std::string_view text);

/// The same between two quotes of the given kind.
std::string escapeXmlAttribute(std::string_view text, char quote);

/// A comment's text without what may not stand in one.
std::string escapeXmlComment(std::string_view text);

/// Replaces every character outside ASCII by a reference.
std::string withReferences(std::string_view utf8);

/// Whether a text is the name of an element or attribute, by the rules of expat.
bool isXmlName(std::string_view text);

}  // namespace tessard
