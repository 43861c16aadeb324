#include "config/MasterConfiguration.h"

namespace tessard {

std::optional<std::vector<MatchEntry>>
NOTIFICATION_PLUGIN_MasterConfiguration::getNodesForPath_withAttributes(
    std::string_view path, const std::optional<AttributeFilter>& attributes) const {
  const Component* component = defaultComponentForPath(path);
  if (!component) return std::nullopt;
  return component->getNodesForPath_withAttributes(path, attributes);
}

XmlNode NOTIFICATION_PLUGIN_MasterConfiguration::getRootNodeForPath(std::string_view path) const {
  const Component* component = defaultComponentForPath(path);
  return component ? component->getRootNode() : XmlNode();
}

std::optional<std::string> NOTIFICATION_PLUGIN_MasterConfiguration::getStringValueForPath_nodeState(
    std::string_view path, int& nodeState) const {
  nodeState = kNodeNotFound;
  const Component* component = defaultComponentForPath(path);
  if (!component) return std::nullopt;
  return component->getStringValueForPath_nodeState(path, nodeState);
}

int NOTIFICATION_PLUGIN_MasterConfiguration::getNodeStateForPath(std::string_view path) const {
  int state = kNodeNotFound;
  if (const Component* component = defaultComponentForPath(path)) {
    component->getNodeForPath_nodeState(path, state);
  }
  return state;
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setStringValue_forPath_nodeState(
    const std::optional<std::string>& value, std::string_view path, int nodeState) {
  if (Component* component = defaultComponentForPath(path)) {
    component->setStringValue_forPath_nodeState(value, path, nodeState);
  }
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setStringValue_forPath(const std::optional<std::string>& value,
                                                                     std::string_view path) {
  setStringValue_forPath_nodeState(value, path, kNodeLive);
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setNodeState_forPath(int nodeState, std::string_view path) {
  setStringValue_forPath_nodeState(std::nullopt, path, nodeState);
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setStringValues_forPath_nodeState_setMode_replaceExisting(
    const std::vector<std::string>& values, std::string_view path, int nodeState, int setMode,
    bool replaceExisting) {
  if (Component* component = defaultComponentForPath(path)) {
    component->setStringValues_forPath_nodeState_setMode_replaceExisting(values, path, nodeState, setMode,
                                                                         replaceExisting);
  }
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setStringValues_forPath(const std::vector<std::string>& values,
                                                                      std::string_view path) {
  setStringValues_forPath_nodeState_setMode_replaceExisting(values, path, kNodeLive, kSetModeAdd, true);
}

void NOTIFICATION_PLUGIN_MasterConfiguration::setAttributeValue_forKey_atPath_matchingAttributes(
    const std::optional<std::string>& value, std::string_view key, std::string_view path,
    const std::optional<AttributeFilter>& attributes) {
  if (Component* component = defaultComponentForPath(path)) {
    component->setAttributeValue_forKey_atPath_matchingAttributes(value, key, path, attributes);
  }
}

void NOTIFICATION_PLUGIN_MasterConfiguration::replaceNode_withNode_forPath(const XmlNode& oldNode,
                                                                           const XmlNode& newNode,
                                                                           std::string_view path) {
  if (Component* component = defaultComponentForPath(path)) {
    component->replaceNode_withNode(oldNode, newNode);
    component->setConfigDirty(true);
  }
}

}  // namespace tessard
