#include "common/XmlDocument.h"

#include <utility>

#include "platform/XmlTree.h"

namespace tessard {

XmlDocument::XmlDocument(std::shared_ptr<XmlTree> tree, XmlDocumentNode* document)
    : tree_(std::move(tree)), document_(document) {}

Result<XmlDocument> XmlDocument::parse(std::string bytes) {
  Result<ParsedXml> parsed = parseXml(std::move(bytes));
  if (!parsed) return parsed.error();
  return XmlDocument(std::move(parsed.value().tree), parsed.value().document);
}

XmlNode XmlDocument::root() const {
  for (XmlNodeData* node = document_->firstChild; node; node = node->next) {
    if (node->kind == XmlNodeData::Kind::element) return XmlNode(tree_, node);
  }
  return {};
}

Result<std::string> XmlDocument::serialize() const {
  if (!document_->changed) return std::string(document_->source);
  return writeXml(*document_);
}

}  // namespace tessard
