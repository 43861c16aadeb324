#include "config/ComponentConfiguration.h"

namespace tessard {

namespace {

// All segments of a path but the last, and the last; empty without a dot.
std::string_view parentOf(std::string_view path) {
  const std::size_t dot = path.rfind('.');
  return path.substr(0, dot == std::string_view::npos ? 0 : dot);
}

std::string_view lastSegmentOf(std::string_view path) {
  return path.substr(path.rfind('.') + 1);
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
  const std::string_view parent = parentOf(path);
  if (parent == basePath) return matchingChildren(path, base, attributes);
  if (!isAtOrBelow(parent, basePath)) return std::nullopt;
  // Names may hold dots, so that more than one of them can lead on.
  const std::string_view below = parent.substr(basePath.size() + 1);
  for (XmlNode child = base.firstChild(); child; child = child.nextSibling()) {
    const std::string_view name = child.name();
    if (!child.isElement() || !isAtOrBelow(below, name)) continue;
    const std::string_view childPath = parent.substr(0, basePath.size() + 1 + name.size());
    auto found = getChildNodesForPath_fromBase_basePath_withAttributes(path, child, childPath, attributes);
    if (found) return found;
  }
  return std::nullopt;
}

std::optional<std::vector<MatchEntry>> NOTIFICATION_PLUGIN_ComponentConfiguration::matchingChildren(
    std::string_view path, const XmlNode& base, const std::optional<AttributeFilter>& attributes) const {
  const std::string_view name = lastSegmentOf(path);
  if (name.empty() || name.size() == path.size()) return std::nullopt;
  std::vector<MatchEntry> matches;
  for (XmlNode child = base.firstChild(); child; child = child.nextSibling()) {
    const bool live = child.isElement();
    if (live ? child.name() != name : !child.mayHoldElementNamed(name)) continue;
    if (!live && elementNodeWithCommentNode(child).name() != name) continue;
    if (live && attributes && !matchNode_withAttributes(child, *attributes)) continue;
    matches.push_back(
        {child, std::string(path), std::string(parentOf(path)), live ? kNodeLive : kNodeSwitchedOff});
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
  return std::string(lastSegmentOf(path));
}

std::string NOTIFICATION_PLUGIN_ComponentConfiguration::parentPathFromPath(std::string_view path) const {
  return std::string(parentOf(path));
}

}  // namespace tessard
