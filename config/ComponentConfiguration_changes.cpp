#include <algorithm>

#include "common/Format.h"
#include "common/Utf8.h"
#include "config/ComponentConfiguration.h"

namespace tessard {

void NOTIFICATION_PLUGIN_ComponentConfiguration::setStringValue_forPath_nodeState(
    const std::optional<std::string>& value, std::string_view path, int nodeState) {
  int found = kNodeNotFound;
  const XmlNode node = getNodeForPath_nodeState(path, found);
  if (found == kNodeNotFound) {
    addMissingNode(value, path, nodeState);
  } else if (found == kNodeSwitchedOff) {
    if (nodeState == kNodeLive && !refuseUnlessXmlText(value, path)) switchOn(node, value);
  } else if (nodeState == kNodeSwitchedOff) {
    replaceNode_withNode(node, commentNodeWithElementNode(node));
    configDirty_ = true;
  } else if (value && !refuseUnlessXmlText(value, path)) {
    node.setStringValue(*value);
    configDirty_ = true;
  }
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::addMissingNode(const std::optional<std::string>& value,
                                                                std::string_view path, int nodeState) {
  int parentState = kNodeNotFound;
  const XmlNode parent = getNodeForPath_nodeState(parentPathFromPath(path), parentState);
  if (parentState != kNodeLive || refuseUnlessXmlText(value, path)) return;
  const XmlNode node = newNodeWithName_stringValue_nodeState(nodeNameFromPath(path), value, nodeState);
  if (!node) return;
  parent.append(node);
  configDirty_ = true;
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::switchOn(const XmlNode& comment,
                                                          const std::optional<std::string>& value) {
  const XmlNode element = elementNodeWithCommentNode(comment);
  replaceNode_withNode(comment, element);
  configDirty_ = true;
  if (value) element.setStringValue(*value);
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::setStringValues_forPath_nodeState_setMode_replaceExisting(
    const std::vector<std::string>& values, std::string_view path, int nodeState, int setMode,
    bool replaceExisting) {
  const auto refused = [&](const std::string& value) { return refuseUnlessXmlText(value, path); };
  if (std::any_of(values.begin(), values.end(), refused)) return;
  const auto matches = getNodesForPath_withAttributes(path, std::nullopt);
  int parentState = kNodeNotFound;
  const XmlNode parent = matches ? matches->front().node.parent()
                                 : getNodeForPath_nodeState(parentPathFromPath(path), parentState);
  if (!parent || setMode != kSetModeAdd) return;
  if (!parent.isElement()) {
    logError_source(fill("a switched-off element cannot take values: %@", {path}), "");
    return;
  }
  if (matches && replaceExisting) {
    for (const MatchEntry& match : *matches) match.node.detach();
  }
  for (const std::string& value : values) {
    const XmlNode node = newNodeWithName_stringValue_nodeState(nodeNameFromPath(path), value, nodeState);
    if (!node) break;
    parent.append(node);
  }
  configDirty_ = true;
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::setAttributeValue_forKey_atPath_matchingAttributes(
    const std::optional<std::string>& value, std::string_view key, std::string_view path,
    const std::optional<AttributeFilter>& attributes) {
  if (refuseUnlessXmlText(value, path)) return;
  const auto matches = getNodesForPath_withAttributes(path, attributes);
  if (!matches) return;
  for (const MatchEntry& match : *matches) {
    if (match.state != kNodeLive) continue;
    if (value) {
      match.node.setAttribute(key, *value);
    } else {
      match.node.removeAttribute(key);
    }
    configDirty_ = true;
  }
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::refuseUnlessXmlText(const std::optional<std::string>& value,
                                                                     std::string_view path) const {
  if (!value || isXmlText(*value)) return false;
  logError_source(fill("value with characters that XML cannot hold, not set: %@", {path}), "");
  return true;
}

XmlNode NOTIFICATION_PLUGIN_ComponentConfiguration::commentNodeWithElementNode(const XmlNode& element) const {
  if (element.name().empty()) return {};
  const std::string text = element.stringValue();
  return XmlNode::makeComment(text.empty() ? fill("<%@/>", {element.name()})
                                           : fill("<%@>%@</%@>", {element.name(), text, element.name()}));
}

XmlNode NOTIFICATION_PLUGIN_ComponentConfiguration::elementNodeWithCommentNode(const XmlNode& comment) const {
  return comment.isComment() ? comment.elementInComment() : XmlNode();
}

XmlNode NOTIFICATION_PLUGIN_ComponentConfiguration::newNodeWithName_stringValue_nodeState(
    std::string_view name, const std::optional<std::string>& value, int nodeState) const {
  if (name.empty() || (value && !isXmlText(*value))) return {};
  if (nodeState == kNodeLive) return XmlNode::makeElement(name, value.value_or(""));
  return XmlNode::makeComment(fill("<%@>%@</%@>", {name, value, name}));
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::replaceNode_withNode(const XmlNode& oldNode,
                                                                      const XmlNode& newNode) {
  treeIsAsSaved_ = false;
  const XmlNode parent = oldNode.parent();
  oldNode.detach();
  if (newNode) parent.append(newNode);
}

}  // namespace tessard
