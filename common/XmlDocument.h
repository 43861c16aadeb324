#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"

namespace tessard {

struct XmlNodeData;
struct XmlDocumentData;

/// A node of an XML tree: a handle, cheap to copy, that compares equal to every other handle of the same
/// node. An empty handle stands for "no such node"; operations on it give empty, absent or false and change
/// nothing. A handle keeps the tree that its node belongs to alive. A node that has been detached, and a node
/// that was just made, belongs to no tree until it is appended.
class XmlNode {
 public:
  enum class Kind { element, comment, text, other };

  XmlNode() = default;

  /// A new element with that text as its only content (none for an empty text), or a new comment.
  static XmlNode makeElement(std::string_view name, std::string_view text);
  static XmlNode makeComment(std::string_view text);

  explicit operator bool() const { return node_ != nullptr; }
  bool operator==(const XmlNode&) const = default;

  Kind kind() const;
  bool isElement() const { return node_ && kind() == Kind::element; }
  bool isComment() const { return node_ && kind() == Kind::comment; }

  /// The name of an element; empty for every other kind.
  std::string_view name() const;

  /// Of an element: all text and CDATA below it, comments left out, untrimmed. Of a comment or text: its
  /// text, references resolved.
  std::string stringValue() const;

  /// An element's new content is the text alone.
  void setStringValue(std::string_view text) const;

  XmlNode parent() const;
  /// The children of every kind, in document order; white space between elements is a text node.
  std::vector<XmlNode> children() const;
  XmlNode firstChild() const;
  XmlNode nextSibling() const;

  /// Attributes of an element, by their names as written.
  std::optional<std::string> attribute(std::string_view name) const;
  std::vector<std::pair<std::string, std::string>> attributes() const;
  void setAttribute(std::string_view name, std::string_view value) const;
  void removeAttribute(std::string_view name) const;

  /// Takes the node out of its tree, with the layout that was its own. No effect on a node without a parent.
  void detach() const;

  /// Adds a node as this element's last child, detaching it from wherever it is, laid out like its siblings.
  void append(const XmlNode& child) const;

  /// For a comment whose text begins with "<" and is one whole XML element by itself: that element, parsed
  /// afresh into a tree of its own. Otherwise an empty handle.
  XmlNode elementInComment() const;

 private:
  friend class XmlDocument;
  XmlNode(std::shared_ptr<XmlDocumentData> tree, XmlNodeData* node);

  std::shared_ptr<XmlDocumentData> tree_;
  XmlNodeData* node_ = nullptr;
};

/// An XML file in memory. Writing it out gives back, byte for byte, what was read wherever nothing was
/// changed.
class XmlDocument {
 public:
  /// Parses strictly, by the rules of the parser that jabberd2 itself uses: what that refuses fails with its
  /// error code and a description that names the line. A document type declaration is refused, nothing is
  /// ever fetched.
  static Result<XmlDocument> parse(std::string bytes);

  XmlNode root() const;

  /// The document as bytes. Changed parts keep the layout around them; added nodes are indented like their
  /// siblings; a document that has no layout at all and was changed is indented by two blanks a level; empty
  /// elements take the short form. Fails when a changed part holds text that XML cannot (see `isXmlText`) or
  /// a name that is none.
  Result<std::string> serialize() const;

 private:
  explicit XmlDocument(std::shared_ptr<XmlDocumentData> tree) : tree_(std::move(tree)) {}

  std::shared_ptr<XmlDocumentData> tree_;
};

}  // namespace tessard
