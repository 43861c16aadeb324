// Carries out an order with pugixml. Usage: pugixml_edit ORDER

#include <pugixml.hpp>

#include "bench/peers/Order.h"

namespace {

using Names = std::vector<std::string>;

class Document {
 public:
  bool load(const std::string& path) {
    return tree_.load_file(path.c_str(), pugi::parse_full | pugi::parse_ws_pcdata);
  }
  bool save(const std::string& path) { return tree_.save_file(path.c_str(), "", pugi::format_raw); }

  void set(const Names& names, const std::string& text) {
    pugi::xml_node node = find(names);
    if (!node) node = parent(names).append_child(names.back().c_str());
    while (node.first_child()) node.remove_child(node.first_child());
    node.append_child(pugi::node_pcdata).set_value(text.c_str());
  }
  void have(const Names& names) {
    if (!find(names)) parent(names).append_child(names.back().c_str());
  }
  void drop(const Names& names) {
    while (parent(names).remove_child(names.back().c_str())) {
    }
  }
  void list(const Names& names, const Names& texts, const Names& attributes) {
    drop(names);
    pugi::xml_node above = parent(names);
    for (const std::string& text : texts) {
      pugi::xml_node node = above.append_child(names.back().c_str());
      for (const std::string& attribute : attributes) {
        const auto at = attribute.find('=');
        if (at != std::string::npos) {
          node.append_attribute(attribute.substr(0, at).c_str()) = attribute.substr(at + 1).c_str();
        }
      }
      node.append_child(pugi::node_pcdata).set_value(text.c_str());
    }
  }
  std::string text(const Names& names) { return find(names).child_value(); }

 private:
  pugi::xml_node parent(const Names& names) {
    pugi::xml_node node = tree_.document_element();
    for (std::size_t i = 0; i + 1 < names.size(); ++i) node = node.child(names[i].c_str());
    return node;
  }
  pugi::xml_node find(const Names& names) { return parent(names).child(names.back().c_str()); }

  pugi::xml_document tree_;
};

}  // namespace

int main(int count, char** arguments) {
  return count == 2 ? order::carryOut<Document>(arguments[1]) : 64;
}
