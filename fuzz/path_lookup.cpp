// The first line of the input is a path, the second the name and the third the value of an attribute; the
// rest is the document.

#include "config/ComponentConfiguration.h"
#include "fuzz/FuzzBytes.h"
#include "fuzz/FuzzTargets.h"
#include "fuzz/XmlEdit.h"
#include "tests/support/TestPlatform.h"

namespace tessard::fuzz {

namespace {

using Component = NOTIFICATION_PLUGIN_ComponentConfiguration;
using Matches = std::vector<std::pair<XmlNode, int>>;

std::string nameOf(const XmlNode& node) {
  const XmlNode element = node.isComment() ? node.elementInComment() : node;
  return std::string(element.name());
}

bool suits(const XmlNode& element, const std::optional<AttributeFilter>& filter) {
  return !filter || element.attribute(filter->front().first) == filter->front().second;
}

// The search as it is defined, without a thought for speed: every element is entered.
Matches search(const std::string& path, const std::string& parent, const XmlNode& base,
               const std::string& basePath, const std::optional<AttributeFilter>& filter) {
  Matches found;
  for (const XmlNode& child : base.children()) {
    if (parent == basePath) {
      if (nameOf(child).empty() || basePath + "." + nameOf(child) != path) continue;
      if (child.isComment() || suits(child, filter)) {
        found.emplace_back(child, child.isElement() ? kNodeLive : kNodeSwitchedOff);
      }
    } else if (child.isElement()) {
      found = search(path, parent, child, basePath + "." + nameOf(child), filter);
      if (!found.empty()) return found;
    }
  }
  return found;
}

void promiseSearch(const Component& component, const std::string& path,
                   const std::optional<AttributeFilter>& filter) {
  const XmlNode root = component.getRootNode();
  const std::string parent = component.parentPathFromPath(path);
  const Matches expected = search(path, parent, root, nameOf(root), filter);
  const auto found = component.getNodesForPath_withAttributes(path, filter);
  promise(found.has_value() == !expected.empty(), "a lookup finds something when there is something");
  if (!found) return;
  promise(found->size() == expected.size(), "a lookup finds all matches");
  for (std::size_t index = 0; index < found->size(); ++index) {
    const MatchEntry& match = (*found)[index];
    promise(match.node == expected[index].first && match.state == expected[index].second,
            "a lookup finds the matches in their order");
    promise(match.path == path && match.parent == parent, "a match tells its path");
  }
}

void promiseFirst(const Component& component, const std::string& path) {
  const auto matches = component.getNodesForPath_withAttributes(path, std::nullopt);
  int state = 7;
  const XmlNode node = component.getNodeForPath_nodeState(path, state);
  promise(matches ? node == matches->front().node && state == matches->front().state : !node && state == 7,
          "the first match is the node of the path");
  const auto text = component.getStringValueForPath_nodeState(path, state);
  promise(state == (matches ? matches->front().state : kNodeNotFound),
          "the state is that of the first match");
  promise(text == (matches ? std::optional(node.stringValue()) : std::nullopt),
          "the text is the first match's");
  const auto value = component.getNodeValueForPath(path);
  promise(value == (state == kNodeLive ? text : std::nullopt), "the value is that of a live first match");
}

}  // namespace

void path_lookup(std::string_view input) {
  static TestPlatform platform;
  FuzzBytes bytes(input);
  const std::string path(bytes.line());
  const std::string key(bytes.line());
  const std::string value(bytes.line());
  auto document = XmlDocument::parse(std::string(bytes.rest()));
  if (!document) return;
  Component component(platform);
  component.setConfigXMLDocument(std::move(document).value());
  promiseSearch(component, path, std::nullopt);
  promiseSearch(component, path, AttributeFilter{{key, value}});
  promiseFirst(component, path);
  platform.log.clear();
}

}  // namespace tessard::fuzz
