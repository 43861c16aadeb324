#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Result.h"

namespace tessard {

struct XmlDocumentRecord;
class XmlTree;

/// Error codes of `XmlDocument` that are not the parser's own (those are below 1000).
enum XmlErrorCode : int {
  kXmlDocumentTypeRefused = 1001,  ///< a document type declaration
  kXmlNestingTooDeep = 1002,       ///< more than `kXmlDepthLimit` levels of elements
  kXmlEncodingRefused = 1003,      ///< UTF-16, or a byte order mark that the declaration contradicts
  kXmlTooLarge = 1004,             ///< more than `kXmlSizeLimit` bytes
  kXmlUnwritable = 1005,           ///< a changed part that XML, or the document's encoding, cannot hold
};

inline constexpr std::size_t kXmlDepthLimit = 256;
inline constexpr std::size_t kXmlSizeLimit = std::size_t{256} * 1024 * 1024;

/// A node of an XML tree: a handle, cheap to copy, that compares equal to every other handle of the same
/// node. An empty handle stands for "no such node"; operations on it give empty, absent or false and change
/// nothing. A handle keeps the tree that its node belongs to alive. A node that has been detached, and a node
/// that was just made, has no parent until it is appended; its handles stay good, before and after. Texts go
/// in and out as UTF-8, whatever the encoding of the file.
///
/// Not safe for use by several threads at once: nodes of one tree share state, and so do the documents that
/// were copied from each other.
class XmlNode {
 public:
  enum class Kind { element, comment, text, other };

  XmlNode() = default;

  /// A new element with that text as its only content (none for an empty text), or a new comment.
  static XmlNode makeElement(std::string_view name, std::string_view text);
  static XmlNode makeComment(std::string_view text);

  explicit operator bool() const { return node_ != 0; }
  bool operator==(const XmlNode& other) const;

  Kind kind() const;
  bool isElement() const { return node_ && kind() == Kind::element; }
  bool isComment() const { return node_ && kind() == Kind::comment; }

  /// The name of an element, with its prefix as written; empty for every other kind. Valid as long as the
  /// node's tree and until the element's attributes are changed.
  std::string_view name() const;

  /// Of an element: all text and CDATA below it, comments left out, untrimmed. Of a text node: its text,
  /// references resolved. Of a comment: its text as written (a comment has no references). Line ends are
  /// "\n".
  std::string stringValue() const;

  /// Of an element: its new content is the text alone, and nothing at all for an empty text. Of a comment or
  /// text node: its new text. Nodes of other kinds stay as they are.
  ///
  /// A comment cannot hold "--" or end in "-": the second of two hyphens and a last one become "&#45;", so
  /// that an element written in the comment keeps its value.
  void setStringValue(std::string_view text) const;

  /// Empty for a document's root element and for what stands beside it.
  XmlNode parent() const;
  /// The children of every kind, in document order; text between two tags, white space included, is one text
  /// node.
  std::vector<XmlNode> children() const;
  XmlNode firstChild() const;
  XmlNode nextSibling() const;

  /// Attributes of an element, by their names as written. Setting and removing do nothing on other kinds.
  std::optional<std::string> attribute(std::string_view name) const;
  std::vector<std::pair<std::string, std::string>> attributes() const;
  void setAttribute(std::string_view name, std::string_view value) const;
  void removeAttribute(std::string_view name) const;

  /// Takes the node out of its tree, and the line that it stood on, or the blanks beside it where something
  /// else stands on that line; next to real text, nothing but the node. No effect on a node without a parent.
  void detach() const;

  /// Adds a node as this element's last child, detaching it from wherever it is (the root of another document
  /// leaves that document without one). It comes after the last child that is not white space, on a line of
  /// its own, indented like its siblings; next to real text nothing is added around it. No effect when this
  /// is no element, or is the child itself or inside it.
  void append(const XmlNode& child) const;

  /// For a comment whose text begins with "<" and is one whole XML element by itself: that element, parsed
  /// afresh into a tree of its own. Otherwise an empty handle.
  XmlNode elementInComment() const;

  /// False when `elementInComment` can give no element of that name: most comments are told apart so, without
  /// a parse.
  bool mayHoldElementNamed(std::string_view name) const;

 private:
  friend class XmlDocument;
  XmlNode(std::shared_ptr<XmlTree> tree, std::uint32_t node);
  XmlNode sameTree(std::uint32_t node) const;
  XmlTree& tree() const;

  // Brought up to date when the tree has moved into another one.
  mutable std::shared_ptr<XmlTree> tree_;
  mutable std::uint32_t node_ = 0;
};

/// An XML file in memory. Writing it out gives back, byte for byte, what was read wherever nothing was
/// changed. Assigning shares one tree; `copy` makes another.
class XmlDocument {
 public:
  /// Parses strictly, by the rules of the parser that jabberd2 itself uses (without namespaces): what that
  /// refuses fails with its error code and a description that names the line. Document type declarations and
  /// UTF-16 are refused with codes of our own, and nothing is ever fetched.
  static Result<XmlDocument> parse(std::string bytes);

  /// The document that `parse` would make of the bytes, without a parse: an independent one that shares with
  /// this one what is the same in both. Absent, at little cost, unless this one is as `parse` made it and the
  /// bytes differ from its own in nothing but plain texts between tags (printable ASCII without markup).
  std::optional<XmlDocument> parseLike(std::string_view bytes) const;

  /// A document with the same content. A change of one never shows in the other; what neither has changed is
  /// kept once, so that this costs little.
  XmlDocument copy() const;

  /// How many nodes the document's tree keeps, and how many of them it was read with: the rest was made
  /// since, and much of that is no longer part of it.
  struct Weight {
    std::size_t nodes;
    std::size_t read;
  };
  Weight weight() const;

  /// Empty only when the root was appended to another tree.
  XmlNode root() const;

  /// The document as bytes, in the encoding it was read in. Changed parts keep the layout around them; a
  /// document that has no line breaks between elements and was changed is indented by two blanks a level, its
  /// empty elements in the short form. Characters that the encoding lacks become references. Fails with
  /// `kXmlUnwritable` when a changed part holds text that XML cannot (see `isXmlText`) or a name that is
  /// none, and with `kXmlNestingTooDeep`; what it gives, `parse` accepts.
  Result<std::string> serialize() const;

 private:
  XmlDocument(std::shared_ptr<XmlTree> tree, XmlDocumentRecord* document);
  const XmlTree& tree() const;

  mutable std::shared_ptr<XmlTree> tree_;
  XmlDocumentRecord* document_;
};

}  // namespace tessard
