#include "platform/XmlText.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr std::string_view kCdataStart = "<![CDATA[";
constexpr std::string_view kCdataEnd = "]]>";

bool isAscii(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

void appendEncoded(std::string& out, std::string_view bytes, XmlEncoding encoding) {
  if (encoding != XmlEncoding::latin1) {
    out += bytes;
    return;
  }
  for (const char byte : bytes) appendUtf8(out, static_cast<unsigned char>(byte));
}

// The character of "#233", "#xe9" or a predefined name; 0 for anything else.
char32_t referredPoint(std::string_view reference) {
  constexpr std::array<std::pair<std::string_view, char32_t>, 5> kPredefined{
      {{"lt", U'<'}, {"gt", U'>'}, {"amp", U'&'}, {"quot", U'"'}, {"apos", U'\''}}};
  for (const auto& [name, point] : kPredefined) {
    if (reference == name) return point;
  }
  if (reference.size() < 2 || reference[0] != '#') return 0;
  const bool hexadecimal = reference[1] == 'x';
  reference.remove_prefix(hexadecimal ? 2 : 1);
  char32_t point = 0;
  for (const char c : reference) {
    const char32_t letter = static_cast<unsigned char>(c) | 0x20U;
    const char32_t digit = letter >= U'a' ? letter - U'a' + 10 : static_cast<unsigned char>(c) - U'0';
    if (digit >= (hexadecimal ? 16U : 10U)) return 0;
    point = point * (hexadecimal ? 16 : 10) + digit;
    if (point > 0x10ffff) return 0;
  }
  return point;
}

// Takes the reference at the front of `raw` (which begins with "&"); a lone ampersand stands for itself.
void takeReference(std::string_view& raw, std::string& out) {
  const std::size_t end = raw.find(';');
  const char32_t point = end == std::string_view::npos ? 0 : referredPoint(raw.substr(1, end - 1));
  if (point == 0) {
    out += '&';
    raw.remove_prefix(1);
    return;
  }
  appendUtf8(out, point);
  raw.remove_prefix(end + 1);
}

void takeLineEnd(std::string_view& raw, std::string& out, char written) {
  out += written;
  raw.remove_prefix(raw.starts_with("\r\n") ? 2 : 1);
}

void appendReference(std::string& out, char32_t point) {
  out += "&#";
  out += std::to_string(static_cast<std::uint32_t>(point));
  out += ';';
}

}  // namespace

bool isXmlWhite(std::string_view raw) {
  return raw.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::size_t lastLineEnd(std::string_view raw) {
  const std::size_t at = raw.find_last_of("\r\n");
  const bool pair = at != std::string_view::npos && at > 0 && raw[at] == '\n' && raw[at - 1] == '\r';
  return pair ? at - 1 : at;
}

bool beginsWithLineEnd(std::string_view raw) {
  const std::size_t at = raw.find_first_not_of(" \t");
  return at != std::string_view::npos && (raw[at] == '\n' || raw[at] == '\r');
}

std::string toUtf8(std::string_view bytes, XmlEncoding encoding) {
  std::string text;
  text.reserve(bytes.size());
  appendEncoded(text, bytes, encoding);
  return text;
}

std::string decodeXmlText(std::string_view raw, XmlEncoding encoding) {
  std::string text;
  text.reserve(raw.size());
  bool cdata = false;
  while (!raw.empty()) {
    const std::size_t plain = std::min(raw.find_first_of(cdata ? "]\r" : "&<\r"), raw.size());
    appendEncoded(text, raw.substr(0, plain), encoding);
    raw.remove_prefix(plain);
    if (raw.empty()) break;
    if (raw[0] == '\r') {
      takeLineEnd(raw, text, '\n');
    } else if (raw[0] == '&') {
      takeReference(raw, text);
    } else if (const std::string_view mark = cdata ? kCdataEnd : kCdataStart; raw.starts_with(mark)) {
      cdata = !cdata;
      raw.remove_prefix(mark.size());
    } else {
      text += raw[0];
      raw.remove_prefix(1);
    }
  }
  return text;
}

std::string decodeXmlAttribute(std::string_view raw, XmlEncoding encoding) {
  std::string text;
  text.reserve(raw.size());
  while (!raw.empty()) {
    const std::size_t plain = std::min(raw.find_first_of("&\t\r\n"), raw.size());
    appendEncoded(text, raw.substr(0, plain), encoding);
    raw.remove_prefix(plain);
    if (raw.empty()) break;
    if (raw[0] == '&') {
      takeReference(raw, text);
    } else {
      takeLineEnd(raw, text, ' ');
    }
  }
  return text;
}

std::string escapeXmlText(std::string_view text) {
  std::string raw;
  raw.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        raw += "&amp;";
        break;
      case '<':
        raw += "&lt;";
        break;
      case '>':
        raw += "&gt;";
        break;
      case '\r':
        raw += "&#13;";
        break;
      default:
        raw += c;
    }
  }
  return raw;
}

std::string escapeXmlAttribute(std::string_view text, char quote) {
  std::string raw;
  raw.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        raw += "&amp;";
        break;
      case '<':
        raw += "&lt;";
        break;
      case '>':
        raw += "&gt;";
        break;
      case '\t':
        raw += "&#9;";
        break;
      case '\n':
        raw += "&#10;";
        break;
      case '\r':
        raw += "&#13;";
        break;
      default:
        if (c == quote) {
          raw += quote == '"' ? "&quot;" : "&apos;";
        } else {
          raw += c;
        }
    }
  }
  return raw;
}

std::string escapeXmlComment(std::string_view text) {
  std::string raw;
  raw.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool hyphen = text[i] == '-';
    if (hyphen && (raw.ends_with('-') || i + 1 == text.size())) {
      raw += "&#45;";
    } else if (text[i] == '\r') {
      raw += "&#13;";
    } else {
      raw += text[i];
    }
  }
  return raw;
}

std::string withReferences(std::string_view utf8) {
  if (isAscii(utf8)) return std::string(utf8);
  std::string out;
  for (const char32_t point : decodeUtf8(utf8)) {
    if (point < 0x80) {
      out += static_cast<char>(point);
    } else {
      appendReference(out, point);
    }
  }
  return out;
}

bool isXmlName(std::string_view text) {
  if (text.empty() || text.find_first_of(" \t\r\n/>='\"<&") != std::string_view::npos) return false;
  if (isAscii(text)) {
    const auto letter = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    };
    const auto inner = [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; };
    return letter(text[0]) && std::all_of(text.begin(), text.end(), inner);
  }
  // Which letters of other scripts may stand in a name is for the parser to say.
  const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate("UTF-8"),
                                                                            &XML_ParserFree);
  const std::string element = "<" + std::string(text) + "/>";
  return parser &&
         XML_Parse(parser.get(), element.data(), static_cast<int>(element.size()), 1) == XML_STATUS_OK;
}

}  // namespace tessard
