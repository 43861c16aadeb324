#include "config/MasterConfiguration.h"

#include "common/Format.h"
#include "config/MasterFileLines.h"

namespace tessard {

namespace {

constexpr std::string_view kConfigDirectory = "/private/etc/jabberd_notification";

}  // namespace

const std::vector<std::string>& NOTIFICATION_PLUGIN_MasterConfiguration::componentNames() {
  static const std::vector<std::string> names = {"router", "sm", "c2s", "s2s"};
  return names;
}

std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration>
NOTIFICATION_PLUGIN_MasterConfiguration::masterConfiguration(Platform& platform) {
  return masterConfigurationWithPath(platform, fill("%@/%@", {kConfigDirectory, kMasterFileName}));
}

std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration>
NOTIFICATION_PLUGIN_MasterConfiguration::masterConfigurationWithPath(Platform& platform,
                                                                     std::string_view path) {
  auto master = std::make_unique<NOTIFICATION_PLUGIN_MasterConfiguration>(platform);
  master->initWithPath(path);
  return master;
}

NOTIFICATION_PLUGIN_MasterConfiguration::NOTIFICATION_PLUGIN_MasterConfiguration(Platform& platform)
    : Object(platform.log), platform_(platform) {}

NOTIFICATION_PLUGIN_MasterConfiguration::~NOTIFICATION_PLUGIN_MasterConfiguration() = default;

void NOTIFICATION_PLUGIN_MasterConfiguration::initWithPath(std::string_view path) {
  configPath_ = path;
  loadedComponents_ = ComponentLists();
  configDirty_ = false;
}

void NOTIFICATION_PLUGIN_MasterConfiguration::cachePathConfig(const ComponentNameAndPath& nameAndPath) {
  if (loadedConfigPaths_) loadedConfigPaths_->add(nameAndPath.name, nameAndPath.path);
}

NOTIFICATION_PLUGIN_ComponentConfiguration*
NOTIFICATION_PLUGIN_MasterConfiguration::cacheNewComponentForName_andPath(std::string_view name,
                                                                          std::string_view path) {
  auto component =
      Component::componentConfigurationForName_andPath(platform_, name, std::string(path), &knownDocuments_);
  if (!component) {
    logError_source("Error creating new component", "");
    return nullptr;
  }
  configDirty_ = true;
  return loadedComponents_.listFor(name).emplace_back(std::move(component)).get();
}

const NOTIFICATION_PLUGIN_MasterConfiguration::ComponentList*
NOTIFICATION_PLUGIN_MasterConfiguration::loadedComponentsForName(std::string_view name) const {
  return loadedComponents_.find(name);
}

NOTIFICATION_PLUGIN_ComponentConfiguration* NOTIFICATION_PLUGIN_MasterConfiguration::defaultComponentForName(
    std::string_view name) const {
  const ComponentList* components = loadedComponentsForName(name);
  return components && !components->empty() ? components->front().get() : nullptr;
}

const std::vector<std::string>* NOTIFICATION_PLUGIN_MasterConfiguration::loadedConfigPathsForName(
    std::string_view name) const {
  return loadedConfigPaths_ ? loadedConfigPaths_->find(name) : nullptr;
}

const NOTIFICATION_PLUGIN_MasterConfiguration::ComponentList*
NOTIFICATION_PLUGIN_MasterConfiguration::loadedComponentsForPath(std::string_view path) const {
  return loadedComponentsForName(path.substr(0, path.find('.')));
}

NOTIFICATION_PLUGIN_ComponentConfiguration* NOTIFICATION_PLUGIN_MasterConfiguration::defaultComponentForPath(
    std::string_view path) const {
  return defaultComponentForName(path.substr(0, path.find('.')));
}

}  // namespace tessard
