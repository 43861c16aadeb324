#include <utility>

#include "common/Utf8.h"
#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

using DataKind = XmlNodeData::Kind;

constexpr std::string_view kCommentStart = "<!--";
constexpr std::string_view kCommentEnd = "-->";

/// The node after `node` in document order within `top`.
const XmlNodeData* following(const XmlNodeData* node, const XmlNodeData* top) {
  if (node->firstChild) return node->firstChild;
  while (node != top && !node->next) node = node->parent;
  return node == top ? nullptr : node->next;
}

void replaceContent(XmlTree& tree, XmlNodeData& element, std::string_view text) {
  XmlNodeData* const only = element.firstChild;
  const bool oneText = only && !only->next && only->kind == DataKind::text;
  if (oneText && decodeXmlText(only->bytes(), only->encoding) == text) return;
  if (oneText && !text.empty()) {
    setTextMarkup(*only, escapeXmlText(text));
    return;
  }
  if (element.firstChild) element.emptied = true;
  while (element.firstChild) unlink(*element.firstChild);
  if (text.empty()) return;
  XmlNodeData& content = *tree.make(DataKind::text);
  setTextMarkup(content, escapeXmlText(text));
  linkAfter(element, nullptr, content);
}

bool isAncestorOrSelf(const XmlNodeData* candidate, const XmlNodeData* node) {
  while (node && node != candidate) node = node->parent;
  return node;
}

}  // namespace

std::string commentText(const XmlNodeData& comment) {
  std::string_view text = comment.bytes();
  text.remove_prefix(kCommentStart.size());
  text.remove_suffix(kCommentEnd.size());
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
  return comment.encoding == XmlEncoding::latin1 ? toUtf8(decoded, comment.encoding) : decoded;
}

std::string commentMarkup(std::string_view text) {
  return std::string(kCommentStart) + escapeXmlComment(text) + std::string(kCommentEnd);
}

XmlNode::XmlNode(std::shared_ptr<XmlTree> tree, XmlNodeData* node)
    : tree_(node ? XmlTree::current(std::move(tree)) : nullptr), node_(node) {}

XmlNode XmlNode::sameTree(XmlNodeData* node) const {
  return node ? XmlNode(tree_, node) : XmlNode();
}

XmlNode XmlNode::makeElement(std::string_view name, std::string_view text) {
  auto tree = std::make_shared<XmlTree>();
  XmlNodeData& element = *tree->make(DataKind::element);
  if (isXmlName(name)) {
    element.own = std::make_unique<std::string>("<" + std::string(name) + "/>");
  } else {
    element.own = std::make_unique<std::string>("<_/>");
    element.nameApart = true;
    element.unwritable = true;
    tree->names.emplace(&element, name);
  }
  replaceContent(*tree, element, text);
  return XmlNode(std::move(tree), &element);
}

XmlNode XmlNode::makeComment(std::string_view text) {
  auto tree = std::make_shared<XmlTree>();
  tree->nodesAtOnce = 1;
  XmlNodeData& comment = *tree->make(DataKind::comment);
  comment.own = std::make_unique<std::string>(commentMarkup(text));
  comment.added = true;
  return XmlNode(std::move(tree), &comment);
}

XmlNode::Kind XmlNode::kind() const {
  if (!node_) return Kind::other;
  switch (node_->kind) {
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
  if (!node_->nameApart) return rawNameOf(*node_);
  return XmlTree::current(tree_)->names.at(node_);
}

std::string XmlNode::stringValue() const {
  switch (kind()) {
    case Kind::comment:
      return commentText(*node_);
    case Kind::text:
      return decodeXmlText(node_->bytes(), node_->encoding);
    case Kind::element:
      break;
    default:
      return {};
  }
  std::string value;
  for (const XmlNodeData* at = following(node_, node_); at; at = following(at, node_)) {
    if (at->kind == DataKind::text) value += decodeXmlText(at->bytes(), at->encoding);
  }
  return value;
}

void XmlNode::setStringValue(std::string_view text) const {
  switch (kind()) {
    case Kind::element:
      replaceContent(*XmlTree::current(tree_), *node_, text);
      break;
    case Kind::text:
      setTextMarkup(*node_, escapeXmlText(text));
      break;
    case Kind::comment:
      if (commentText(*node_) == text) return;
      node_->own = std::make_unique<std::string>(commentMarkup(text));
      node_->encoding = XmlEncoding::utf8;
      node_->added = true;
      break;
    default:
      return;
  }
  markChanged(*node_);
}

XmlNode XmlNode::parent() const {
  if (!node_ || !node_->parent || node_->parent->kind == DataKind::document) return {};
  return sameTree(node_->parent);
}

std::vector<XmlNode> XmlNode::children() const {
  std::vector<XmlNode> nodes;
  for (XmlNodeData* child = node_ ? node_->firstChild : nullptr; child; child = child->next) {
    nodes.push_back(sameTree(child));
  }
  return nodes;
}

XmlNode XmlNode::firstChild() const {
  return node_ ? sameTree(node_->firstChild) : XmlNode();
}

XmlNode XmlNode::nextSibling() const {
  return node_ ? sameTree(node_->next) : XmlNode();
}

std::optional<std::string> XmlNode::attribute(std::string_view name) const {
  if (!isElement()) return std::nullopt;
  return attributeOf(*node_, name);
}

std::vector<std::pair<std::string, std::string>> XmlNode::attributes() const {
  if (!isElement()) return {};
  return attributesOf(*node_);
}

void XmlNode::setAttribute(std::string_view name, std::string_view value) const {
  if (isElement() && changeAttribute(*node_, name, value)) markChanged(*node_);
}

void XmlNode::removeAttribute(std::string_view name) const {
  if (isElement() && changeAttribute(*node_, name, std::nullopt)) markChanged(*node_);
}

void XmlNode::detach() const {
  if (!parent()) return;
  markChanged(*node_);
  removeWithLayout(*node_);
}

void XmlNode::append(const XmlNode& child) const {
  if (!isElement() || !child || isAncestorOrSelf(child.node_, node_)) return;
  XmlTree::unite(tree_, child.tree_);
  if (child.node_->parent) {
    markChanged(*child.node_);
    removeWithLayout(*child.node_);
  }
  appendWithLayout(*XmlTree::current(tree_), *node_, *child.node_);
  markChanged(*node_);
}

XmlNode XmlNode::elementInComment() const {
  if (!isComment()) return {};
  // Most comments are prose: they are told apart without a parse.
  const std::string_view bytes = node_->bytes();
  if (bytes.size() <= kCommentStart.size() + kCommentEnd.size() || bytes[kCommentStart.size()] != '<')
    return {};
  std::string text = commentText(*node_);
  const std::size_t end = text.find_last_not_of(" \t\n");
  if (end < 3 || text[end] != '>' || text[1] == '!' || text[1] == '?') return {};
  Result<ParsedXml> parsed = parseXml(std::move(text));
  if (!parsed) return {};
  XmlDocumentNode& document = *parsed.value().document;
  XmlNodeData& root = *document.firstChild;
  if (root.next && root.next->kind != DataKind::text) return {};
  unlink(root);
  return XmlNode(parsed.value().tree, &root);
}

}  // namespace tessard
