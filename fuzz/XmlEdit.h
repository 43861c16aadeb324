#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/ComponentConfiguration.h"
#include "fuzz/FuzzBytes.h"

namespace tessard {

/// One call of an editing operation of a component, drawn from bytes.
class XmlEdit {
 public:
  /// Draws one for the component as it is now.
  XmlEdit(FuzzBytes& bytes, const NOTIFICATION_PLUGIN_ComponentConfiguration& component);

  /// The nodes that may change, for which others may come, or which may go.
  const std::vector<XmlNode>& touched() const { return touched_; }
  /// The elements whose children these are, and the one that new children come to.
  const std::vector<XmlNode>& parents() const { return parents_; }

  /// For a person who looks at what a fuzzer found.
  std::string describe() const;

  void apply(NOTIFICATION_PLUGIN_ComponentConfiguration& component) const;

  /// The path whose first match has the value after the edit; absent when the edit sets no value.
  std::optional<std::string> pathOfValue() const;
  const std::string& value() const { return values_.front(); }

 private:
  enum class Kind {
    setValue,
    switchOff,
    switchOn,
    setBoth,
    replaceValues,
    addValues,
    setAttribute,
    dropAttribute,
    replaceNode,
  };

  void choosePath(FuzzBytes& bytes, const NOTIFICATION_PLUGIN_ComponentConfiguration& component);
  void chooseTouched(const NOTIFICATION_PLUGIN_ComponentConfiguration& component);

  Kind kind_;
  std::string path_;
  std::string key_;
  int state_;
  std::vector<std::string> values_;
  std::vector<XmlNode> touched_;
  std::vector<XmlNode> parents_;
  bool setsFirstMatch_ = false;
};

/// Every element and comment below a node and the node itself, in the order of the document.
std::vector<XmlNode> nodesBelow(const XmlNode& top);

}  // namespace tessard
