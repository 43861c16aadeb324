#include <utility>

#include "common/Utf8.h"
#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

using DataKind = XmlNodeData::Kind;

constexpr std::string_view kCommentStart = "<!--";
constexpr std::string_view kCommentEnd = "-->";

void replaceContent(XmlTree& tree, XmlNodeId element, std::string_view text) {
  const XmlNodeId only = tree[element].firstChild;
  const bool oneText = only && !tree[only].next && tree[only].kind == DataKind::text;
  if (oneText && decodeXmlText(tree.bytes(tree[only]), tree[only].encoding) == text) return;
  if (oneText && !text.empty()) {
    setTextMarkup(tree, only, escapeXmlText(text));
    return;
  }
  if (only) tree.edit(element).emptied = true;
  while (tree[element].firstChild) unlink(tree, tree[element].firstChild);
  if (text.empty()) return;
  const XmlNodeId content = tree.make(DataKind::text);
  setTextMarkup(tree, content, escapeXmlText(text));
  linkAfter(tree, element, 0, content);
}

bool isAncestorOrSelf(const XmlTree& tree, XmlNodeId candidate, XmlNodeId node) {
  while (node && node != candidate) node = tree[node].parent;
  return node;
}

/// What stands between the marks of a comment, as its bytes have it.
std::string_view insideOf(std::string_view comment) {
  comment.remove_prefix(kCommentStart.size());
  comment.remove_suffix(kCommentEnd.size());
  return comment;
}

/// The name of the element that a comment begins with; empty for prose.
std::string_view nameInside(std::string_view comment) {
  const std::string_view text = insideOf(comment);
  return text.starts_with('<') ? nameInTag(text) : std::string_view();
}

}  // namespace

std::string commentText(const XmlTree& tree, XmlNodeId comment) {
  const std::string_view text = insideOf(tree.bytes(tree[comment]));
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r') {
      decoded += '\n';
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      decoded += text[i];
    }
  }
  const XmlEncoding encoding = tree[comment].encoding;
  return encoding == XmlEncoding::latin1 ? toUtf8(decoded, encoding) : decoded;
}

std::string commentMarkup(std::string_view text) {
  return std::string(kCommentStart) + escapeXmlComment(text) + std::string(kCommentEnd);
}

XmlNode::XmlNode(std::shared_ptr<XmlTree> tree, std::uint32_t node)
    : tree_(node ? std::move(tree) : nullptr), node_(node) {}

XmlTree& XmlNode::tree() const {
  XmlTree::follow(tree_, node_);
  return *tree_;
}

XmlNode XmlNode::sameTree(std::uint32_t node) const {
  return node ? XmlNode(tree_, node) : XmlNode();
}

bool XmlNode::operator==(const XmlNode& other) const {
  if (!node_ || !other.node_) return node_ == other.node_;
  return &tree() == &other.tree() && node_ == other.node_;
}

XmlNode XmlNode::makeElement(std::string_view name, std::string_view text) {
  auto tree = std::make_shared<XmlTree>();
  const XmlNodeId element = tree->make(DataKind::element);
  if (isXmlName(name)) {
    tree->setBytes(element, "<" + std::string(name) + "/>");
  } else {
    tree->setBytes(element, "<_/>");
    XmlNodeData& made = tree->edit(element);
    made.nameApart = true;
    made.unwritable = true;
    tree->names.emplace(element, name);
  }
  replaceContent(*tree, element, text);
  return XmlNode(std::move(tree), element);
}

XmlNode XmlNode::makeComment(std::string_view text) {
  auto tree = std::make_shared<XmlTree>();
  const XmlNodeId comment = tree->make(DataKind::comment);
  tree->setBytes(comment, commentMarkup(text));
  tree->edit(comment).added = true;
  return XmlNode(std::move(tree), comment);
}

XmlNode::Kind XmlNode::kind() const {
  if (!node_) return Kind::other;
  const XmlTree& tree = this->tree();
  switch (tree[node_].kind) {
    case DataKind::element:
      return Kind::element;
    case DataKind::comment:
      return Kind::comment;
    case DataKind::text:
      return Kind::text;
    default:
      return Kind::other;
  }
}

std::string_view XmlNode::name() const {
  if (!isElement()) return {};
  const XmlTree& tree = this->tree();
  return tree[node_].nameApart ? tree.names.at(node_) : nameInTag(tree.bytes(tree[node_]));
}

std::string XmlNode::stringValue() const {
  if (!node_) return {};
  const XmlTree& tree = this->tree();
  switch (kind()) {
    case Kind::comment:
      return commentText(tree, node_);
    case Kind::text:
      return decodeXmlText(tree.bytes(tree[node_]), tree[node_].encoding);
    case Kind::element:
      break;
    default:
      return {};
  }
  std::string value;
  for (XmlNodeId at = followingWithin(tree, node_, node_); at; at = followingWithin(tree, at, node_)) {
    if (tree[at].kind == DataKind::text) value += decodeXmlText(tree.bytes(tree[at]), tree[at].encoding);
  }
  return value;
}

void XmlNode::setStringValue(std::string_view text) const {
  if (!node_) return;
  XmlTree& tree = this->tree();
  switch (kind()) {
    case Kind::element:
      replaceContent(tree, node_, text);
      break;
    case Kind::text:
      setTextMarkup(tree, node_, escapeXmlText(text));
      break;
    case Kind::comment: {
      if (commentText(tree, node_) == text) return;
      tree.setBytes(node_, commentMarkup(text));
      XmlNodeData& comment = tree.edit(node_);
      comment.encoding = XmlEncoding::utf8;
      comment.added = true;
      break;
    }
    default:
      return;
  }
  tree.markChanged(node_);
}

XmlNode XmlNode::parent() const {
  if (!node_) return {};
  const XmlTree& tree = this->tree();
  const XmlNodeId parent = tree[node_].parent;
  if (!parent || tree[parent].kind == DataKind::document) return {};
  return sameTree(parent);
}

std::vector<XmlNode> XmlNode::children() const {
  std::vector<XmlNode> nodes;
  for (XmlNode child = firstChild(); child; child = child.nextSibling()) nodes.push_back(child);
  return nodes;
}

XmlNode XmlNode::firstChild() const {
  if (!node_) return {};
  const XmlTree& tree = this->tree();
  return sameTree(tree[node_].firstChild);
}

XmlNode XmlNode::nextSibling() const {
  if (!node_) return {};
  const XmlTree& tree = this->tree();
  return sameTree(tree[node_].next);
}

std::optional<std::string> XmlNode::attribute(std::string_view name) const {
  if (!isElement()) return std::nullopt;
  const XmlTree& tree = this->tree();
  return attributeOf(tree, node_, name);
}

std::vector<std::pair<std::string, std::string>> XmlNode::attributes() const {
  if (!isElement()) return {};
  const XmlTree& tree = this->tree();
  return attributesOf(tree, node_);
}

void XmlNode::setAttribute(std::string_view name, std::string_view value) const {
  if (!isElement()) return;
  XmlTree& tree = this->tree();
  if (changeAttribute(tree, node_, name, value)) tree.markChanged(node_);
}

void XmlNode::removeAttribute(std::string_view name) const {
  if (!isElement()) return;
  XmlTree& tree = this->tree();
  if (changeAttribute(tree, node_, name, std::nullopt)) tree.markChanged(node_);
}

void XmlNode::detach() const {
  if (!parent()) return;
  XmlTree& tree = this->tree();
  tree.markChanged(node_);
  removeWithLayout(tree, node_);
}

void XmlNode::append(const XmlNode& child) const {
  if (!isElement() || !child) return;
  const bool sameTree = &tree() == &child.tree();
  if (sameTree && isAncestorOrSelf(tree(), child.node_, node_)) return;
  if (!sameTree) XmlTree::unite(tree_, child.tree_);
  XmlTree& tree = this->tree();
  child.tree();
  if (tree[child.node_].parent) {
    tree.markChanged(child.node_);
    removeWithLayout(tree, child.node_);
  }
  appendWithLayout(tree, node_, child.node_);
  tree.markChanged(node_);
}

bool XmlNode::mayHoldElementNamed(std::string_view name) const {
  if (!isComment()) return false;
  const XmlNodeData& comment = tree()[node_];
  const std::string_view found = nameInside(tree().bytes(comment));
  return comment.encoding == XmlEncoding::latin1 ? toUtf8(found, comment.encoding) == name : found == name;
}

XmlNode XmlNode::elementInComment() const {
  if (!isComment()) return {};
  // Most comments are prose: they are told apart without a parse.
  const XmlTree& tree = this->tree();
  if (nameInside(tree.bytes(tree[node_])).empty()) return {};
  std::string text = commentText(tree, node_);
  const std::size_t end = text.find_last_not_of(" \t\n");
  if (end < 3 || text[end] != '>' || text[1] == '!' || text[1] == '?') return {};
  Result<ParsedXml> parsed = parseXml(std::move(text));
  if (!parsed) return {};
  XmlTree& inside = *parsed.value().tree;
  const XmlNodeId root = inside[parsed.value().document->node].firstChild;
  const XmlNodeId after = inside[root].next;
  if (after && inside[after].kind != DataKind::text) return {};
  unlink(inside, root);
  return XmlNode(parsed.value().tree, root);
}

}  // namespace tessard
