#include "fuzz/XmlEdit.h"

#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr unsigned kKinds = 9;
constexpr std::size_t kMostValues = 3;

void collect(const XmlNode& node, std::vector<XmlNode>& nodes) {
  if (!node.isElement() && !node.isComment()) return;
  nodes.push_back(node);
  for (XmlNode child = node.firstChild(); child; child = child.nextSibling()) collect(child, nodes);
}

std::string pathOf(const XmlNode& node) {
  const XmlNode element = node.isComment() ? node.elementInComment() : node;
  const std::string name = element ? std::string(element.name()) : "none";
  const XmlNode parent = node.parent();
  return parent ? pathOf(parent) + "." + name : name;
}

}  // namespace

std::vector<XmlNode> nodesBelow(const XmlNode& top) {
  std::vector<XmlNode> nodes;
  collect(top, nodes);
  return nodes;
}

XmlEdit::XmlEdit(FuzzBytes& bytes, const NOTIFICATION_PLUGIN_ComponentConfiguration& component)
    : kind_(static_cast<Kind>(bytes.below(kKinds))), state_(static_cast<int>(bytes.below(3)) - 1) {
  choosePath(bytes, component);
  values_.push_back(bytes.text());
  if (kind_ == Kind::replaceValues || kind_ == Kind::addValues) {
    for (std::size_t more = bytes.below(kMostValues); more > 0; --more) values_.push_back(bytes.text());
  }
  if (kind_ == Kind::setAttribute || kind_ == Kind::dropAttribute) key_ = bytes.text();
  chooseTouched(component);
}

// A path that leads to something, or one that goes on or astray from there.
void XmlEdit::choosePath(FuzzBytes& bytes, const NOTIFICATION_PLUGIN_ComponentConfiguration& component) {
  const auto nodes = nodesBelow(component.getRootNode());
  const std::size_t chosen = bytes.byte() + 256 * bytes.below(16);
  path_ = pathOf(nodes[chosen % nodes.size()]);
  const unsigned turn = bytes.byte();
  if (turn % 4 == 0) path_ += ".new";
  if (turn % 32 == 1) path_ += "." + bytes.text();
}

void XmlEdit::chooseTouched(const NOTIFICATION_PLUGIN_ComponentConfiguration& component) {
  const auto matches = component.getNodesForPath_withAttributes(path_, std::nullopt);
  // A comment that is switched on goes behind its like-named siblings.
  setsFirstMatch_ = kind_ == Kind::setValue && isXmlText(values_.front()) && matches &&
                    (matches->size() == 1 || matches->front().state == kNodeLive);
  if (!matches) {
    int ignored = kNodeNotFound;
    const XmlNode parent = component.getNodeForPath_nodeState(component.parentPathFromPath(path_), ignored);
    if (parent) parents_.push_back(parent);
    return;
  }
  parents_.push_back(matches->front().node.parent());
  const bool all =
      kind_ == Kind::replaceValues || kind_ == Kind::setAttribute || kind_ == Kind::dropAttribute;
  for (const MatchEntry& match : *matches) {
    if (kind_ != Kind::addValues && (all || touched_.empty())) touched_.push_back(match.node);
  }
}

std::optional<std::string> XmlEdit::pathOfValue() const {
  return setsFirstMatch_ ? std::optional(path_) : std::nullopt;
}

std::string XmlEdit::describe() const {
  return "kind " + std::to_string(static_cast<int>(kind_)) + ", state " + std::to_string(state_) + ", path " +
         path_ + ", key " + key_ + ", first value " + values_.front();
}

void XmlEdit::apply(NOTIFICATION_PLUGIN_ComponentConfiguration& component) const {
  switch (kind_) {
    case Kind::setValue:
      return component.setStringValue_forPath_nodeState(values_.front(), path_, kNodeLive);
    case Kind::switchOff:
      return component.setStringValue_forPath_nodeState(std::nullopt, path_, kNodeSwitchedOff);
    case Kind::switchOn:
      return component.setStringValue_forPath_nodeState(std::nullopt, path_, kNodeLive);
    case Kind::setBoth:
      return component.setStringValue_forPath_nodeState(values_.front(), path_, state_);
    case Kind::replaceValues:
    case Kind::addValues:
      return component.setStringValues_forPath_nodeState_setMode_replaceExisting(
          values_, path_, state_, kSetModeAdd, kind_ == Kind::replaceValues);
    case Kind::setAttribute:
      return component.setAttributeValue_forKey_atPath_matchingAttributes(values_.front(), key_, path_,
                                                                          std::nullopt);
    case Kind::dropAttribute:
      return component.setAttributeValue_forKey_atPath_matchingAttributes(std::nullopt, key_, path_,
                                                                          std::nullopt);
    case Kind::replaceNode:
      if (touched_.empty()) return;
      component.replaceNode_withNode(touched_.front(), component.newNodeWithName_stringValue_nodeState(
                                                           "other", values_.front(), state_));
      return component.setConfigDirty(true);
  }
}

}  // namespace tessard
