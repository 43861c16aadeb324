#include "config/LiveElements.h"

#include "common/Text.h"

namespace tessard {

std::vector<XmlNode> liveElementsAt(const XmlNode& base, std::string_view path) {
  std::vector<XmlNode> nodes{base};
  for (const std::string& name : componentsOf(path, '.')) {
    std::vector<XmlNode> next;
    for (const XmlNode& node : nodes) {
      for (XmlNode child = node.firstChild(); child; child = child.nextSibling()) {
        if (child.isElement() && child.name() == name) next.push_back(child);
      }
    }
    nodes = std::move(next);
  }
  return nodes;
}

std::vector<std::string> liveTextsAt(const XmlNode& base, std::string_view path) {
  std::vector<std::string> texts;
  for (const XmlNode& node : liveElementsAt(base, path)) texts.push_back(node.stringValue());
  return texts;
}

std::string liveTextAt(const XmlNode& base, std::string_view path) {
  const auto nodes = liveElementsAt(base, path);
  return nodes.empty() ? "" : nodes.front().stringValue();
}

}  // namespace tessard
