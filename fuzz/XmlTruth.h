#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessard {

/// What expat, asked alone and with nothing of ours, says about a text.
struct XmlTruth {
  bool wellFormed = false;
  bool documentType = false;
  /// Declares an entity, or refers to one that is none of the five of XML.
  bool entities = false;
};

XmlTruth truthAboutXml(std::string_view text);

/// A piece of the markup of a well-formed document without a document type.
struct XmlToken {
  enum class Kind { open, close, empty, comment, instruction, text };

  Kind kind;
  std::string_view bytes;  ///< points into the document; of a text, CDATA sections apart, one character

  bool isNode() const { return kind == Kind::open || kind == Kind::empty || kind == Kind::comment; }
  bool isWhite() const;
};

/// The document in pieces, cut by the characters of the markup alone. Together they are the whole of it.
std::vector<XmlToken> tokensOf(std::string_view document);

/// The token that closes the element opened at `index`, or `index` for any other token.
std::size_t endOfNode(const std::vector<XmlToken>& tokens, std::size_t index);

}  // namespace tessard
