#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/Result.h"
#include "platform/XmlText.h"

namespace tessard {

/// A node's number in its tree, from 1; 0 stands for none.
using XmlNodeId = std::uint32_t;

/// One node. What was read stays where it is in the source and is only pointed at; a changed node has bytes
/// of its own in the tree. Kept small: there are hundreds in each file, and a thousand files.
struct XmlNodeData {
  enum class Kind : std::uint8_t { document, element, comment, text, other };

  const char* raw = nullptr;  ///< as read: the start tag of an element, the whole of any other node
  std::uint32_t rawLength = 0;
  std::uint32_t endTagDistance = 0;  ///< of an element: from `raw` to its end tag, 0 when none was read
  XmlNodeId parent = 0;
  XmlNodeId firstChild = 0;
  XmlNodeId lastChild = 0;
  XmlNodeId previous = 0;
  XmlNodeId next = 0;
  std::uint32_t realTexts = 0;  ///< how many children are text other than white space
  std::uint32_t own = 0;        ///< bytes in place of `raw`: 1 and their index; of a document: its record's
  Kind kind = Kind::other;
  XmlEncoding encoding = XmlEncoding::utf8;  ///< of the bytes
  bool white : 1 = false;                    ///< of a text: nothing but white space
  bool emptied : 1 = false;                  ///< of an element: lost its content, so the short form is due
  bool nameApart : 1 = false;  ///< of an element: its name stands in `XmlTree::names` (not UTF-8, or no name)
  bool unwritable : 1 = false;  ///< was given a name that is none
  bool added : 1 = false;       ///< line ends in its bytes are ours, to be made the document's
  bool touched : 1 = false;     ///< it or something within it was changed since the document was parsed
};

/// What a document has besides the node above its root and what stands beside that.
struct XmlDocumentRecord {
  XmlNodeId node = 0;
  XmlEncoding encoding = XmlEncoding::utf8;
  std::string_view source;    ///< as parsed; empty in a document that was made from another one
  std::size_t size = 0;       ///< bytes as read
  std::size_t nodesRead = 0;  ///< what the tree held then
  std::string_view lineEnd = "\n";
  std::optional<std::string> indentationUnit;  ///< found when first needed
  bool hasLayout = false;                      ///< some element stands on a line of its own
  bool changed = false;
};

/// What a group of nodes needs to live. Nodes are kept in blocks that copies of a tree share until they
/// change a node of the block. Trees are united when a node of one is appended to the other, so a handle may
/// point at a tree that has moved into another one.
///
/// References to nodes, from `operator[]` and `edit`, are good until the next `edit`, `make` or `unite`.
class XmlTree {
 public:
  const XmlNodeData& operator[](XmlNodeId id) const {
    return (*blocks_[(id - 1) / kBlockSize])[(id - 1) % kBlockSize];
  }
  /// The same to be changed, no longer shared.
  XmlNodeData& edit(XmlNodeId id);
  XmlNodeId make(XmlNodeData::Kind kind);

  /// From here on nodes that are changed are `touched`, and all above them.
  void beginFollowingChanges() { following_ = true; }
  /// What an element was read as, from the start tag to the end tag, where nothing within it was changed and
  /// nothing that has content has got another place since; empty otherwise.
  std::string_view wholeAsRead(const XmlNodeData& element) const;

  /// A node's bytes. Good until they are changed.
  std::string_view bytes(const XmlNodeData& node) const {
    return node.own ? std::string_view(*own_[node.own - 1]) : std::string_view(node.raw, node.rawLength);
  }
  void setBytes(XmlNodeId id, std::string bytes);
  /// The same to be changed, a copy of what was read at first. Good until the next one is asked for.
  std::string& editBytes(XmlNodeId id);
  std::string_view endTag(const XmlNodeData& element) const;

  /// Bytes that live as long as the tree and its copies.
  std::string_view keepSource(std::string bytes);
  XmlDocumentRecord& addDocument(XmlNodeId node);
  /// The document that a node stands in; null for a detached one.
  XmlDocumentRecord* documentOf(XmlNodeId id) const;
  void markChanged(XmlNodeId id) const;

  /// An independent tree of the same nodes.
  std::shared_ptr<XmlTree> copy() const;
  /// The record of the document whose node has that number.
  XmlDocumentRecord& documentAt(XmlNodeId node) const { return *documents_[(*this)[node].own - 1]; }
  /// How many nodes there are, those that stand nowhere included.
  std::size_t size() const { return count_; }

  /// Makes one tree of two, the smaller one moving.
  static void unite(const std::shared_ptr<XmlTree>& first, const std::shared_ptr<XmlTree>& second);
  /// Follows the moves of a tree, and of a node with it.
  static void follow(std::shared_ptr<XmlTree>& tree, XmlNodeId& id);

  std::unordered_map<XmlNodeId, std::string> names;

 private:
  static constexpr std::size_t kBlockSize = 16;
  using Block = std::array<XmlNodeData, kBlockSize>;

  friend void linkAfter(XmlTree& tree, XmlNodeId parent, XmlNodeId sibling, XmlNodeId child);

  void take(XmlTree& from);
  Block& ownBlock(XmlNodeId id);

  std::vector<std::shared_ptr<Block>> blocks_;
  std::size_t count_ = 0;
  bool following_ = false;
  bool hasMoved_ = false;  // something with content, which may stand deeper now
  std::vector<std::shared_ptr<std::string>> own_;
  std::vector<std::shared_ptr<const std::string>> sources_;
  std::vector<std::unique_ptr<XmlDocumentRecord>> documents_;
  std::shared_ptr<XmlTree> movedInto_;
  XmlNodeId movedBy_ = 0;
};

struct ParsedXml {
  std::shared_ptr<XmlTree> tree;
  XmlDocumentRecord* document;
};

Result<ParsedXml> parseXml(std::string bytes);
/// A tree of its own of the same document, and of bytes that differ from those which it was parsed from in
/// plain texts only. Absent for all other bytes, and for a document that was changed or not parsed.
ParsedXml copyXml(const XmlTree& tree, const XmlDocumentRecord& document);
std::optional<ParsedXml> parseXmlLike(const XmlTree& tree, const XmlDocumentRecord& document,
                                      std::string_view bytes);
Result<std::string> writeXml(const XmlTree& tree, const XmlDocumentRecord& document);

/// The node after `node` in document order within `top`; 0 at the end.
XmlNodeId followingWithin(const XmlTree& tree, XmlNodeId node, XmlNodeId top);

/// Inserts a parentless node after one of the parent's children, or as the first child.
void linkAfter(XmlTree& tree, XmlNodeId parent, XmlNodeId sibling, XmlNodeId child);
/// Takes a node out of its parent and leaves everything around it as it is.
void unlink(XmlTree& tree, XmlNodeId node);

/// Gives a text node new markup.
void setTextMarkup(XmlTree& tree, XmlNodeId text, std::string markup);

/// Removal and insertion with the white space that belongs to the node.
void removeWithLayout(XmlTree& tree, XmlNodeId node);
void appendWithLayout(XmlTree& tree, XmlNodeId parent, XmlNodeId child);

/// The name in a start tag, as its bytes have it.
std::string_view nameInTag(std::string_view tag);

std::optional<std::string> attributeOf(const XmlTree& tree, XmlNodeId element, std::string_view name);
std::vector<std::pair<std::string, std::string>> attributesOf(const XmlTree& tree, XmlNodeId element);
/// True when the element was changed.
bool changeAttribute(XmlTree& tree, XmlNodeId element, std::string_view name,
                     std::optional<std::string_view> value);

/// A comment's text as written, and a comment's bytes for a text.
std::string commentText(const XmlTree& tree, XmlNodeId comment);
std::string commentMarkup(std::string_view text);

}  // namespace tessard
