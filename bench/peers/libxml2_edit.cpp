// Carries out an order with libxml2. Usage: libxml2_edit ORDER

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "bench/peers/Order.h"

namespace {

using Names = std::vector<std::string>;

const xmlChar* xml(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

class Document {
 public:
  Document() = default;
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;
  ~Document() { xmlFreeDoc(tree_); }

  bool load(const std::string& path) {
    xmlFreeDoc(tree_);
    tree_ = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    return tree_ != nullptr;
  }
  bool save(const std::string& path) { return xmlSaveFile(path.c_str(), tree_) >= 0; }

  void set(const Names& names, const std::string& text) {
    xmlNode* node = find(names);
    if (!node) node = xmlNewChild(parent(names), nullptr, xml(names.back()), nullptr);
    xmlNodeSetContent(node, nullptr);
    xmlNodeAddContent(node, xml(text));
  }
  void have(const Names& names) {
    if (!find(names)) xmlNewChild(parent(names), nullptr, xml(names.back()), nullptr);
  }
  void drop(const Names& names) {
    while (xmlNode* node = find(names)) {
      xmlUnlinkNode(node);
      xmlFreeNode(node);
    }
  }
  void list(const Names& names, const Names& texts, const Names& attributes) {
    drop(names);
    for (const std::string& text : texts) {
      xmlNode* node = xmlNewTextChild(parent(names), nullptr, xml(names.back()), xml(text));
      for (const std::string& attribute : attributes) {
        const auto at = attribute.find('=');
        if (at != std::string::npos) {
          xmlNewProp(node, xml(attribute.substr(0, at)), xml(attribute.substr(at + 1)));
        }
      }
    }
  }
  std::string text(const Names& names) {
    const xmlNode* node = find(names);
    if (!node) return "";
    xmlChar* content = xmlNodeGetContent(node);
    std::string text(reinterpret_cast<const char*>(content));
    xmlFree(content);
    return text;
  }

 private:
  static xmlNode* child(xmlNode* node, const std::string& name) {
    for (node = node->children; node; node = node->next) {
      if (node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, xml(name))) return node;
    }
    return nullptr;
  }
  xmlNode* parent(const Names& names) {
    xmlNode* node = xmlDocGetRootElement(tree_);
    for (std::size_t i = 0; i + 1 < names.size(); ++i) node = child(node, names[i]);
    return node;
  }
  xmlNode* find(const Names& names) { return child(parent(names), names.back()); }

  xmlDoc* tree_ = nullptr;
};

}  // namespace

int main(int count, char** arguments) {
  return count == 2 ? order::carryOut<Document>(arguments[1]) : 64;
}
