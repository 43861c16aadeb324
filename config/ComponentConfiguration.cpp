#include "config/ComponentConfiguration.h"

#include "common/Format.h"

namespace tessard {

namespace {

struct NamedClass {
  std::string_view name;
  std::string_view className;
};

constexpr NamedClass kClassNames[] = {
    {"router", "NOTIFICATION_PLUGIN_RouterConfigurationParser"},
    {"sm", "NOTIFICATION_PLUGIN_SMConfigurationParser"},
    {"s2s", "NOTIFICATION_PLUGIN_S2SConfigurationParser"},
    {"c2s", "NOTIFICATION_PLUGIN_C2SConfigurationParser"},
};

using Component = NOTIFICATION_PLUGIN_ComponentConfiguration;

std::unique_ptr<Component> newObjectOfClass(std::string_view className, Platform& platform) {
  if (className == "NOTIFICATION_PLUGIN_RouterConfigurationParser") {
    return std::make_unique<NOTIFICATION_PLUGIN_RouterConfigurationParser>(platform);
  }
  if (className == "NOTIFICATION_PLUGIN_SMConfigurationParser") {
    return std::make_unique<NOTIFICATION_PLUGIN_SMConfigurationParser>(platform);
  }
  if (className == "NOTIFICATION_PLUGIN_S2SConfigurationParser") {
    return std::make_unique<NOTIFICATION_PLUGIN_S2SConfigurationParser>(platform);
  }
  if (className == "NOTIFICATION_PLUGIN_C2SConfigurationParser") {
    return std::make_unique<NOTIFICATION_PLUGIN_C2SConfigurationParser>(platform);
  }
  return nullptr;
}

}  // namespace

std::unique_ptr<Component> NOTIFICATION_PLUGIN_ComponentConfiguration::componentConfigurationForName_andPath(
    Platform& platform, std::string_view name, const std::optional<std::string>& path,
    KnownDocuments* known) {
  const Object log(platform.log);
  log.logDebug_source(fill("componentConfigurationForName: %@, %@", {name, path}), "");
  for (const NamedClass& named : kClassNames) {
    if (named.name == name) return instanceOfClassNamed(platform, named.className, name, path, known);
  }
  log.logDebug_source("classname == nil, should never happen", "");
  return nullptr;
}

std::unique_ptr<Component> NOTIFICATION_PLUGIN_ComponentConfiguration::instanceOfClassNamed(
    Platform& platform, std::string_view className, std::string_view name,
    const std::optional<std::string>& path, KnownDocuments* known) {
  auto component = newObjectOfClass(className, platform);
  if (!component) {
    Object(platform.log).logDebug_source("unknown class, should never happen", "");
    return nullptr;
  }
  component->known_ = known;
  component->initWithName_andPath(name, path);
  return component;
}

NOTIFICATION_PLUGIN_ComponentConfiguration::NOTIFICATION_PLUGIN_ComponentConfiguration(Platform& platform)
    : Object(platform.log), platform_(platform) {}

void NOTIFICATION_PLUGIN_ComponentConfiguration::initWithName_andPath(
    std::string_view name, const std::optional<std::string>& path) {
  configName_ = name;
  configPath_ = path;
  configDirty_ = false;
  loadDocument();
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::setConfigXMLDocument(std::optional<XmlDocument> document) {
  configXMLDocument_ = std::move(document);
  treeIsAsSaved_ = false;
  readVersion_.reset();
}

Result<XmlDocument> NOTIFICATION_PLUGIN_ComponentConfiguration::parsed(std::string bytes) const {
  return known_ ? known_->parse(configName_, std::move(bytes)) : XmlDocument::parse(std::move(bytes));
}

}  // namespace tessard
