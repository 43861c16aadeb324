#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "config/ComponentConfiguration.h"
#include "config/MasterConfiguration.h"
#include "config/ServiceAccount.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

using Component = NOTIFICATION_PLUGIN_ComponentConfiguration;
using Master = NOTIFICATION_PLUGIN_MasterConfiguration;
using Message = RecordingLog::Message;

inline constexpr std::string_view kDirectory = "/private/etc/jabberd_notification";
inline const std::string kSm = "/private/etc/jabberd_notification/sm.xml";
inline const std::string kCfg = "/private/etc/jabberd_notification/jabberd.cfg";

/// A moment long before any file that a test run writes by itself.
inline constexpr FileTime kLongAgo{1000, 0};

/// A moment long after: nothing that a test run writes is later.
inline constexpr FileTime kFarAhead{4102444800, 0};

inline std::string inDirectory(std::string_view name) {
  return std::string(kDirectory) + "/" + std::string(name);
}

/// The tree below a node in one line, without the white space between elements.
inline std::string outline(const XmlNode& node) {
  if (node.isComment()) return "<!--" + node.stringValue() + "-->";
  if (!node.isElement()) {
    const std::string text = node.stringValue();
    return text.find_first_not_of(" \t\r\n") == std::string::npos ? "" : text;
  }
  std::string line = "<" + std::string(node.name());
  for (const auto& [name, value] : node.attributes()) {
    line.append(" ").append(name).append("=").append(value);
  }
  line += ">";
  for (const XmlNode& child : node.children()) line += outline(child);
  return line + "</" + std::string(node.name()) + ">";
}

inline std::string outlineOfText(std::string text) {
  auto document = XmlDocument::parse(std::move(text));
  if (!document) throw std::runtime_error("not XML: " + document.error().description());
  return outline(document.value().root());
}

/// One component whose file was last changed at the moment of its load.
struct OneComponent {
  TestPlatform platform;
  std::unique_ptr<Component> component;

  explicit OneComponent(std::string_view xml, std::string_view name = "sm") {
    platform.clock.time = kLongAgo;
    platform.root.write(kSm, xml);
    platform.root.setModified(kSm, kLongAgo);
    component = Component::componentConfigurationForName_andPath(platform, name, kSm);
    platform.log.clear();
    platform.files.clearCalls();
  }

  Component* operator->() const { return component.get(); }
  std::string tree() const { return outline(component->getRootNode()); }
  std::string file() const { return platform.root.read(kSm); }
};

/// A master file with component files beside it, nothing loaded yet.
struct OneMaster {
  TestPlatform platform;
  std::unique_ptr<Master> master;

  /// `cfg` is the text of the master file; an "@" stands for the directory and a slash.
  explicit OneMaster(std::string_view cfg) {
    platform.clock.time = kLongAgo;
    writeCfg(cfg);
    master = Master::masterConfigurationWithPath(platform, kCfg);
  }

  void writeCfg(std::string_view cfg) {
    std::string text;
    for (const char c : cfg) text += c == '@' ? inDirectory("") : std::string(1, c);
    platform.root.write(kCfg, text);
  }
  void writeXml(std::string_view name, std::string_view xml) { platform.root.write(inDirectory(name), xml); }
  /// From now on the clock shows the machine's time whenever a file is touched.
  void followMachineClock() {
    platform.files.beforeCall = [this](const FaultyFileSystem::Call&) { platform.clock.setToMachine(); };
  }
  Master* operator->() const { return master.get(); }

  /// The paths of the components under a name.
  std::vector<std::string> componentPaths(std::string_view name) const {
    std::vector<std::string> paths;
    if (const auto* components = master->loadedComponentsForName(name)) {
      for (const auto& component : *components) paths.push_back(component->configPath().value_or("(null)"));
    }
    return paths;
  }
  std::vector<std::string> listedPaths(std::string_view name) const {
    const auto* paths = master->loadedConfigPathsForName(name);
    return paths ? *paths : std::vector<std::string>();
  }
};

}  // namespace tessard
