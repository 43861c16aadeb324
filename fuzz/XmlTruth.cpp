#include "fuzz/XmlTruth.h"

#include <expat.h>

#include <algorithm>
#include <memory>
#include <type_traits>

namespace tessard {

namespace {

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

// From the start of a piece to behind the mark that ends it.
std::size_t lengthTo(std::string_view text, std::string_view mark) {
  const std::size_t at = text.find(mark);
  return at == std::string_view::npos ? text.size() : at + mark.size();
}

std::size_t tagLength(std::string_view text) {
  char quote = 0;
  for (std::size_t at = 1; at < text.size(); ++at) {
    const char c = text[at];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return at + 1;
    }
  }
  return text.size();
}

XmlToken firstToken(std::string_view text) {
  using Kind = XmlToken::Kind;
  if (text.front() != '<') return {Kind::text, text.substr(0, 1)};
  if (text.starts_with("<!--")) return {Kind::comment, text.substr(0, 4 + lengthTo(text.substr(4), "-->"))};
  if (text.starts_with("<![CDATA[")) return {Kind::text, text.substr(0, lengthTo(text, "]]>"))};
  if (text.starts_with("<?")) return {Kind::instruction, text.substr(0, lengthTo(text, "?>"))};
  const std::string_view tag = text.substr(0, tagLength(text));
  if (tag.starts_with("</")) return {Kind::close, tag};
  return {tag.ends_with("/>") ? Kind::empty : Kind::open, tag};
}

}  // namespace

XmlTruth truthAboutXml(std::string_view text) {
  XmlTruth truth;
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree> parser(XML_ParserCreate(nullptr));
  if (!parser) return truth;
  XML_SetUserData(parser.get(), &truth);
  XML_SetStartDoctypeDeclHandler(parser.get(), [](void* seen, const char*, const char*, const char*, int) {
    static_cast<XmlTruth*>(seen)->documentType = true;
  });
  XML_SetEntityDeclHandler(
      parser.get(), [](void* seen, const char*, int, const char*, int, const char*, const char*, const char*,
                       const char*) { static_cast<XmlTruth*>(seen)->entities = true; });
  XML_SetSkippedEntityHandler(
      parser.get(), [](void* seen, const char*, int) { static_cast<XmlTruth*>(seen)->entities = true; });
  truth.wellFormed =
      XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK;
  return truth;
}

bool XmlToken::isWhite() const {
  return kind == Kind::text &&
         std::ranges::all_of(bytes, [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; });
}

std::vector<XmlToken> tokensOf(std::string_view document) {
  std::vector<XmlToken> tokens;
  while (!document.empty()) {
    tokens.push_back(firstToken(document));
    document.remove_prefix(tokens.back().bytes.size());
  }
  return tokens;
}

std::size_t endOfNode(const std::vector<XmlToken>& tokens, std::size_t index) {
  std::size_t depth = 0;
  for (std::size_t at = index; at < tokens.size(); ++at) {
    if (tokens[at].kind == XmlToken::Kind::open) ++depth;
    if (tokens[at].kind == XmlToken::Kind::close) --depth;
    if (depth == 0) return at;
  }
  return index;
}

}  // namespace tessard
