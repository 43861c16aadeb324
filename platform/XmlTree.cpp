#include "platform/XmlTree.h"

#include <algorithm>

namespace tessard {

XmlTree::Block& XmlTree::ownBlock(XmlNodeId id) {
  std::shared_ptr<Block>& block = blocks_[(id - 1) / kBlockSize];
  if (block.use_count() > 1) block = std::make_shared<Block>(*block);
  return *block;
}

XmlNodeData& XmlTree::edit(XmlNodeId id) {
  if (following_) {
    for (XmlNodeId at = id; at && !(*this)[at].touched; at = (*this)[at].parent) {
      ownBlock(at)[(at - 1) % kBlockSize].touched = true;
    }
  }
  return ownBlock(id)[(id - 1) % kBlockSize];
}

std::string_view XmlTree::wholeAsRead(const XmlNodeData& element) const {
  if (element.touched || hasMoved_ || !following_ || !element.raw) return {};
  const std::string_view end = endTag(element);
  const char* const behind = end.empty() ? element.raw + element.rawLength : end.data() + end.size();
  return {element.raw, static_cast<std::size_t>(behind - element.raw)};
}

XmlNodeId XmlTree::make(XmlNodeData::Kind kind) {
  if (count_ % kBlockSize == 0) blocks_.push_back(std::make_shared<Block>());
  const auto id = static_cast<XmlNodeId>(++count_);
  edit(id).kind = kind;
  return id;
}

void XmlTree::setBytes(XmlNodeId id, std::string bytes) {
  auto kept = std::make_shared<std::string>(std::move(bytes));
  XmlNodeData& node = edit(id);
  if (node.own) {
    own_[node.own - 1] = std::move(kept);
  } else {
    own_.push_back(std::move(kept));
    node.own = static_cast<std::uint32_t>(own_.size());
  }
}

std::string& XmlTree::editBytes(XmlNodeId id) {
  const XmlNodeData& node = (*this)[id];
  if (!node.own || own_[node.own - 1].use_count() > 1) setBytes(id, std::string(bytes(node)));
  return *own_[(*this)[id].own - 1];
}

std::string_view XmlTree::endTag(const XmlNodeData& element) const {
  if (element.endTagDistance == 0) return {};
  const char* const begin = element.raw + element.endTagDistance;
  const char* end = begin;
  while (*end != '>') ++end;
  return {begin, static_cast<std::size_t>(end - begin) + 1};
}

std::string_view XmlTree::keepSource(std::string bytes) {
  return *sources_.emplace_back(std::make_shared<const std::string>(std::move(bytes)));
}

XmlDocumentRecord& XmlTree::addDocument(XmlNodeId node) {
  XmlDocumentRecord& document = *documents_.emplace_back(std::make_unique<XmlDocumentRecord>());
  document.node = node;
  edit(node).own = static_cast<std::uint32_t>(documents_.size());
  return document;
}

XmlDocumentRecord* XmlTree::documentOf(XmlNodeId id) const {
  const XmlNodeData* top = &(*this)[id];
  while (top->parent) top = &(*this)[top->parent];
  return top->kind == XmlNodeData::Kind::document ? documents_[top->own - 1].get() : nullptr;
}

void XmlTree::markChanged(XmlNodeId id) const {
  if (XmlDocumentRecord* const document = documentOf(id)) document->changed = true;
}

std::shared_ptr<XmlTree> XmlTree::copy() const {
  auto tree = std::make_shared<XmlTree>();
  tree->names = names;
  tree->blocks_ = blocks_;
  tree->count_ = count_;
  tree->following_ = following_;
  tree->hasMoved_ = hasMoved_;
  tree->own_ = own_;
  tree->sources_ = sources_;
  for (const auto& document : documents_) {
    tree->documents_.push_back(std::make_unique<XmlDocumentRecord>(*document));
  }
  return tree;
}

void XmlTree::take(XmlTree& from) {
  following_ = following_ || from.following_;
  hasMoved_ = hasMoved_ || from.hasMoved_;
  const auto shift = static_cast<XmlNodeId>(count_);
  const auto shifted = [shift](XmlNodeId id) { return id ? id + shift : 0; };
  for (XmlNodeId id = 1; id <= from.count_; ++id) {
    XmlNodeData node = from[id];
    for (XmlNodeId* link : {&node.parent, &node.firstChild, &node.lastChild, &node.previous, &node.next}) {
      *link = shifted(*link);
    }
    const bool document = node.kind == XmlNodeData::Kind::document;
    if (node.own) node.own += static_cast<std::uint32_t>(document ? documents_.size() : own_.size());
    edit(make(node.kind)) = node;
  }
  for (auto& document : from.documents_) {
    document->node = shifted(document->node);
    documents_.push_back(std::move(document));
  }
  while (!from.names.empty()) {
    // The texts stay where they are: names are handed out as views.
    auto entry = from.names.extract(from.names.begin());
    entry.key() += shift;
    names.insert(std::move(entry));
  }
  own_.insert(own_.end(), from.own_.begin(), from.own_.end());
  sources_.insert(sources_.end(), from.sources_.begin(), from.sources_.end());
  from.movedBy_ = shift;
}

void XmlTree::unite(const std::shared_ptr<XmlTree>& first, const std::shared_ptr<XmlTree>& second) {
  if (first == second) return;
  const bool firstStays = first->count_ >= second->count_;
  const std::shared_ptr<XmlTree> to = firstStays ? first : second;
  const std::shared_ptr<XmlTree> from = firstStays ? second : first;
  to->take(*from);
  const XmlNodeId shift = from->movedBy_;
  *from = XmlTree();
  from->movedBy_ = shift;
  from->movedInto_ = to;
}

void XmlTree::follow(std::shared_ptr<XmlTree>& tree, XmlNodeId& id) {
  while (tree->movedInto_) {
    id += tree->movedBy_;
    // Not in one step: the tree that is left may be the only owner of the one that it moved into.
    const std::shared_ptr<XmlTree> to = tree->movedInto_;
    tree = to;
  }
}

XmlNodeId followingWithin(const XmlTree& tree, XmlNodeId node, XmlNodeId top) {
  if (tree[node].firstChild) return tree[node].firstChild;
  while (node != top && !tree[node].next) node = tree[node].parent;
  return node == top ? 0 : tree[node].next;
}

void linkAfter(XmlTree& tree, XmlNodeId parent, XmlNodeId sibling, XmlNodeId child) {
  const XmlNodeId next = sibling ? tree[sibling].next : tree[parent].firstChild;
  XmlNodeData& linked = tree.edit(child);
  if (linked.firstChild && tree.following_) tree.hasMoved_ = true;
  linked.parent = parent;
  linked.previous = sibling;
  linked.next = next;
  const bool realText = linked.kind == XmlNodeData::Kind::text && !linked.white;
  if (sibling) tree.edit(sibling).next = child;
  if (next) tree.edit(next).previous = child;
  XmlNodeData& above = tree.edit(parent);
  if (!sibling) above.firstChild = child;
  if (!next) above.lastChild = child;
  if (realText) ++above.realTexts;
}

void unlink(XmlTree& tree, XmlNodeId node) {
  const XmlNodeData taken = tree[node];
  if (!taken.parent) return;
  if (taken.previous) tree.edit(taken.previous).next = taken.next;
  if (taken.next) tree.edit(taken.next).previous = taken.previous;
  XmlNodeData& above = tree.edit(taken.parent);
  if (!taken.previous) above.firstChild = taken.next;
  if (!taken.next) above.lastChild = taken.previous;
  if (taken.kind == XmlNodeData::Kind::text && !taken.white) --above.realTexts;
  XmlNodeData& left = tree.edit(node);
  left.parent = left.previous = left.next = 0;
}

void setTextMarkup(XmlTree& tree, XmlNodeId text, std::string markup) {
  const bool white = isXmlWhite(markup);
  const XmlNodeData before = tree[text];
  if (before.parent && before.white != white) {
    std::uint32_t& realTexts = tree.edit(before.parent).realTexts;
    realTexts = white ? realTexts - 1 : realTexts + 1;
  }
  tree.setBytes(text, std::move(markup));
  XmlNodeData& node = tree.edit(text);
  node.white = white;
  node.encoding = XmlEncoding::utf8;
  node.added = true;
}

}  // namespace tessard
