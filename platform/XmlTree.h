#pragma once

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

/// One node. What was read stays where it is in the source and is only pointed at; a changed node has bytes
/// of its own. Nodes never move and live as long as their tree.
struct XmlNodeData {
  enum class Kind : std::uint8_t { document, element, comment, text, other };

  XmlNodeData* parent = nullptr;
  XmlNodeData* firstChild = nullptr;
  XmlNodeData* lastChild = nullptr;
  XmlNodeData* previous = nullptr;
  XmlNodeData* next = nullptr;
  const char* raw = nullptr;         ///< as read: the start tag of an element, the whole of any other node
  std::unique_ptr<std::string> own;  ///< stands in place of `raw` once the node was made or changed here
  std::uint32_t rawLength = 0;
  std::uint32_t endTagDistance = 0;  ///< of an element: from `raw` to its end tag, 0 when none was read
  std::uint32_t realTexts = 0;       ///< how many children are text other than white space
  Kind kind = Kind::other;
  XmlEncoding encoding = XmlEncoding::utf8;  ///< of the bytes
  bool white = false;                        ///< of a text: nothing but white space
  bool emptied = false;                      ///< of an element: lost its content, so the short form is due
  bool nameApart = false;   ///< of an element: its name stands in `XmlTree::names` (not UTF-8, or no name)
  bool unwritable = false;  ///< was given a name that is none
  bool added = false;       ///< line ends in its bytes are ours, to be made the document's

  std::string_view bytes() const { return own ? std::string_view(*own) : std::string_view(raw, rawLength); }
  std::string_view endTag() const;
};

/// The node above a document's root and what stands beside it.
struct XmlDocumentNode : XmlNodeData {
  std::string_view source;
  std::string_view lineEnd = "\n";
  std::optional<std::string> indentationUnit;  ///< found when first needed
  bool hasLayout = false;                      ///< some element stands on a line of its own
  bool changed = false;
};

/// What a group of nodes needs to live: sources and nodes. Trees are united when a node of one is appended to
/// the other, so a handle may point at a tree that has moved into another one.
struct XmlTree {
  std::shared_ptr<XmlTree> movedInto;
  std::vector<std::unique_ptr<std::string>> sources;
  std::vector<std::unique_ptr<XmlDocumentNode>> documents;
  std::vector<XmlNodeData> nodes;  ///< filled up to its capacity, which is never exceeded
  std::vector<std::vector<XmlNodeData>> filledNodes;
  std::unordered_map<const XmlNodeData*, std::string> names;
  std::size_t nodesAtOnce = 2;  ///< room made when `nodes` is full

  XmlNodeData* make(XmlNodeData::Kind kind);

  static std::shared_ptr<XmlTree> current(std::shared_ptr<XmlTree> tree);
  /// Makes one tree of two, the smaller one moving.
  static void unite(const std::shared_ptr<XmlTree>& first, const std::shared_ptr<XmlTree>& second);
};

struct ParsedXml {
  std::shared_ptr<XmlTree> tree;
  XmlDocumentNode* document;
};

Result<ParsedXml> parseXml(std::string bytes);
Result<std::string> writeXml(const XmlDocumentNode& document);

/// Inserts a parentless node after one of the parent's children, or as the first child.
void linkAfter(XmlNodeData& parent, XmlNodeData* sibling, XmlNodeData& child);
/// Takes a node out of its parent and leaves everything around it as it is.
void unlink(XmlNodeData& node);

/// The document that a node stands in; null for a detached one.
XmlDocumentNode* documentOf(const XmlNodeData& node);
void markChanged(const XmlNodeData& node);

/// Gives a text node new markup.
void setTextMarkup(XmlNodeData& text, std::string markup);

/// Removal and insertion with the white space that belongs to the node.
void removeWithLayout(XmlNodeData& node);
void appendWithLayout(XmlTree& tree, XmlNodeData& parent, XmlNodeData& child);

/// The element's name as its bytes have it.
std::string_view rawNameOf(const XmlNodeData& element);

std::optional<std::string> attributeOf(const XmlNodeData& element, std::string_view name);
std::vector<std::pair<std::string, std::string>> attributesOf(const XmlNodeData& element);
/// True when the element was changed.
bool changeAttribute(XmlNodeData& element, std::string_view name, std::optional<std::string_view> value);

/// A comment's text as written, and a comment's bytes for a text.
std::string commentText(const XmlNodeData& comment);
std::string commentMarkup(std::string_view text);

}  // namespace tessard
