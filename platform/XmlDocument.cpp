#include "common/XmlDocument.h"

#include <utility>

#include "platform/XmlTree.h"

namespace tessard {

XmlDocument::XmlDocument(std::shared_ptr<XmlTree> tree, XmlDocumentRecord* document)
    : tree_(std::move(tree)), document_(document) {}

Result<XmlDocument> XmlDocument::parse(std::string bytes) {
  Result<ParsedXml> parsed = parseXml(std::move(bytes));
  if (!parsed) return parsed.error();
  return XmlDocument(std::move(parsed.value().tree), parsed.value().document);
}

const XmlTree& XmlDocument::tree() const {
  XmlNodeId root = document_->node;
  XmlTree::follow(tree_, root);
  return *tree_;
}

std::optional<XmlDocument> XmlDocument::parseLike(std::string_view bytes) const {
  auto parsed = parseXmlLike(tree(), *document_, bytes);
  if (!parsed) return std::nullopt;
  return XmlDocument(std::move(parsed->tree), parsed->document);
}

XmlDocument XmlDocument::copy() const {
  const ParsedXml copied = copyXml(tree(), *document_);
  return {copied.tree, copied.document};
}

XmlDocument::Weight XmlDocument::weight() const {
  return {tree().size(), document_->nodesRead};
}

XmlNode XmlDocument::root() const {
  const XmlTree& tree = this->tree();
  for (XmlNodeId id = tree[document_->node].firstChild; id; id = tree[id].next) {
    if (tree[id].kind == XmlNodeData::Kind::element) return {tree_, id};
  }
  return {};
}

Result<std::string> XmlDocument::serialize() const {
  return writeXml(tree(), *document_);
}

}  // namespace tessard
