#include "platform/XmlTree.h"

#include <algorithm>

namespace tessard {

namespace {

constexpr std::size_t kMostNodesAtOnce = 64;

std::size_t weight(const XmlTree& tree) {
  return tree.filledNodes.size() + tree.sources.size() + tree.documents.size() + tree.names.size();
}

template <class T>
void moveInto(std::vector<T>& to, std::vector<T>& from) {
  for (T& item : from) to.push_back(std::move(item));
  from.clear();
}

}  // namespace

std::string_view XmlNodeData::endTag() const {
  if (endTagDistance == 0) return {};
  const char* const begin = raw + endTagDistance;
  const char* end = begin;
  while (*end != '>') ++end;
  return {begin, static_cast<std::size_t>(end - begin) + 1};
}

XmlNodeData* XmlTree::make(XmlNodeData::Kind kind) {
  if (nodes.size() == nodes.capacity()) {
    if (!nodes.empty()) filledNodes.push_back(std::move(nodes));
    nodes = std::vector<XmlNodeData>();
    nodes.reserve(nodesAtOnce);
    nodesAtOnce = std::min(nodesAtOnce * 2, kMostNodesAtOnce);
  }
  XmlNodeData& node = nodes.emplace_back();
  node.kind = kind;
  return &node;
}

std::shared_ptr<XmlTree> XmlTree::current(std::shared_ptr<XmlTree> tree) {
  while (tree->movedInto) tree = tree->movedInto;
  return tree;
}

void XmlTree::unite(const std::shared_ptr<XmlTree>& first, const std::shared_ptr<XmlTree>& second) {
  std::shared_ptr<XmlTree> to = current(first);
  std::shared_ptr<XmlTree> from = current(second);
  if (to == from) return;
  if (weight(*to) < weight(*from)) std::swap(to, from);
  moveInto(to->sources, from->sources);
  moveInto(to->documents, from->documents);
  moveInto(to->filledNodes, from->filledNodes);
  if (!from->nodes.empty()) to->filledNodes.push_back(std::move(from->nodes));
  from->nodes = std::vector<XmlNodeData>();
  to->names.merge(from->names);
  from->movedInto = to;
}

void linkAfter(XmlNodeData& parent, XmlNodeData* sibling, XmlNodeData& child) {
  child.parent = &parent;
  child.previous = sibling;
  child.next = sibling ? sibling->next : parent.firstChild;
  (sibling ? sibling->next : parent.firstChild) = &child;
  (child.next ? child.next->previous : parent.lastChild) = &child;
  if (child.kind == XmlNodeData::Kind::text && !child.white) ++parent.realTexts;
}

void unlink(XmlNodeData& node) {
  if (!node.parent) return;
  (node.previous ? node.previous->next : node.parent->firstChild) = node.next;
  (node.next ? node.next->previous : node.parent->lastChild) = node.previous;
  if (node.kind == XmlNodeData::Kind::text && !node.white) --node.parent->realTexts;
  node.parent = node.previous = node.next = nullptr;
}

XmlDocumentNode* documentOf(const XmlNodeData& node) {
  const XmlNodeData* top = &node;
  while (top->parent) top = top->parent;
  if (top->kind != XmlNodeData::Kind::document) return nullptr;
  return const_cast<XmlDocumentNode*>(static_cast<const XmlDocumentNode*>(top));
}

void markChanged(const XmlNodeData& node) {
  if (XmlDocumentNode* const document = documentOf(node)) document->changed = true;
}

void setTextMarkup(XmlNodeData& text, std::string markup) {
  XmlNodeData* const parent = text.parent;
  if (parent && !text.white) --parent->realTexts;
  text.white = isXmlWhite(markup);
  if (parent && !text.white) ++parent->realTexts;
  text.own = std::make_unique<std::string>(std::move(markup));
  text.encoding = XmlEncoding::utf8;
  text.added = true;
}

}  // namespace tessard
