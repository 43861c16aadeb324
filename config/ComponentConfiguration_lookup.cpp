#include "common/Format.h"
#include "config/ComponentConfiguration.h"

namespace tessard {

namespace {

std::string joined(std::string_view parent, std::string_view name) {
  return fill("%@.%@", {parent, name});
}

// Whether the path is `base` or lies somewhere below it.
bool isAtOrBelow(std::string_view path, std::string_view base) {
  if (!path.starts_with(base)) return false;
  return path.size() == base.size() || path[base.size()] == '.';
}

}  // namespace

XmlNode NOTIFICATION_PLUGIN_ComponentConfiguration::getRootNode() const {
  return configXMLDocument_ ? configXMLDocument_->root() : XmlNode();
}

std::vector<XmlNode> NOTIFICATION_PLUGIN_ComponentConfiguration::getChildNodes() const {
  return getChildNodesForNode(getRootNode());
}

std::vector<XmlNode> NOTIFICATION_PLUGIN_ComponentConfiguration::getChildNodesForNode(
    const XmlNode& node) const {
  return node.children();
}

std::optional<std::vector<MatchEntry>>
NOTIFICATION_PLUGIN_ComponentConfiguration::getNodesForPath_withAttributes(
    std::string_view path, const std::optional<AttributeFilter>& attributes) const {
  const XmlNode root = getRootNode();
  return getChildNodesForPath_fromBase_basePath_withAttributes(path, root, root.name(), attributes);
}

std::optional<std::vector<MatchEntry>>
NOTIFICATION_PLUGIN_ComponentConfiguration::getChildNodesForPath_fromBase_basePath_withAttributes(
    std::string_view path, const XmlNode& base, std::string_view basePath,
    const std::optional<AttributeFilter>& attributes) const {
  const std::string parent = parentPathFromPath(path);
  if (parent == basePath) return matchingChildren(path, parent, base, attributes);
  if (!isAtOrBelow(parent, basePath)) return std::nullopt;
  for (XmlNode child = base.firstChild(); child; child = child.nextSibling()) {
    if (!child.isElement()) continue;
    const std::string childPath = joined(basePath, child.name());
    if (!isAtOrBelow(parent, childPath)) continue;
    auto found = getChildNodesForPath_fromBase_basePath_withAttributes(path, child, childPath, attributes);
    if (found) return found;
  }
  return std::nullopt;
}

std::optional<std::vector<MatchEntry>> NOTIFICATION_PLUGIN_ComponentConfiguration::matchingChildren(
    std::string_view path, const std::string& parent, const XmlNode& base,
    const std::optional<AttributeFilter>& attributes) const {
  std::vector<MatchEntry> matches;
  for (XmlNode child = base.firstChild(); child; child = child.nextSibling()) {
    const bool live = child.isElement();
    const XmlNode element = live ? child : elementNodeWithCommentNode(child);
    if (!element || joined(parent, element.name()) != path) continue;
    if (live && attributes && !matchNode_withAttributes(child, *attributes)) continue;
    matches.push_back({child, std::string(path), parent, live ? kNodeLive : kNodeSwitchedOff});
  }
  if (matches.empty()) return std::nullopt;
  return matches;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::matchNode_withAttributes(
    const XmlNode& element, const AttributeFilter& attributes) const {
  bool matches = false;
  // The last entry alone decides; callers rely on it and pass one.
  for (const auto& [key, value] : attributes) matches = element.attribute(key) == value;
  return matches;
}

XmlNode NOTIFICATION_PLUGIN_ComponentConfiguration::getNodeForPath_nodeState(std::string_view path,
                                                                             int& nodeState) const {
  const auto matches = getNodesForPath_withAttributes(path, std::nullopt);
  if (!matches) return {};
  nodeState = matches->front().state;
  return matches->front().node;
}

std::optional<std::string> NOTIFICATION_PLUGIN_ComponentConfiguration::getNodeValueForPath(
    std::string_view path) const {
  int state = kNodeNotFound;
  const XmlNode node = getNodeForPath_nodeState(path, state);
  if (state != kNodeLive) return std::nullopt;
  return node.stringValue();
}

std::optional<std::string> NOTIFICATION_PLUGIN_ComponentConfiguration::getStringValueForPath_nodeState(
    std::string_view path, int& nodeState) const {
  nodeState = kNodeNotFound;
  const XmlNode node = getNodeForPath_nodeState(path, nodeState);
  if (nodeState == kNodeNotFound) return std::nullopt;
  return node.stringValue();
}

std::string NOTIFICATION_PLUGIN_ComponentConfiguration::nodeNameFromPath(std::string_view path) const {
  return std::string(path.substr(path.rfind('.') + 1));
}

std::string NOTIFICATION_PLUGIN_ComponentConfiguration::parentPathFromPath(std::string_view path) const {
  const std::size_t dot = path.rfind('.');
  return std::string(path.substr(0, dot == std::string_view::npos ? 0 : dot));
}

}  // namespace tessard
