#include <algorithm>
#include <cerrno>

#include "common/Format.h"
#include "common/Utf8.h"
#include "config/MasterConfiguration.h"
#include "config/MasterFileLines.h"

namespace tessard {

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_MasterConfiguration::loadConfigLinesAtPath(
    std::string_view path) const {
  const auto text = platform_.files.readFile(path, kMaximumFileSize);
  const int error = !text ? text.error().code() : isUtf8(text.value()) ? 0 : EILSEQ;
  if (error != 0) {
    logError_source(fill("Failed to load %@ (error = %ld)", {kMasterFileName, error}), "");
    return std::nullopt;
  }
  return linesOf(text.value());
}

int NOTIFICATION_PLUGIN_MasterConfiguration::getConfigurationLineType(std::string_view line) const {
  if (line.starts_with('#')) return kLineComment;
  const auto words = wordsOf(line, " \t");
  if (words.empty()) return kLineIgnored;
  const auto& names = componentNames();
  if (std::find(names.begin(), names.end(), words.front()) == names.end()) return kLineIgnored;
  return words.size() == 1 ? kLineInvalid : kLineComponent;
}

std::optional<ComponentNameAndPath>
NOTIFICATION_PLUGIN_MasterConfiguration::parseComponentNameAndPathFromLine(std::string_view line) const {
  const auto words = wordsOf(line, " ");
  if (words.size() < 2) {
    logWarning_source(fill("Malformed or invalid line found in %@ (ignored)", {kMasterFileName}), "");
    logWarning_source(fill("Offending line: \"%@\"", {line}), "");
    return std::nullopt;
  }
  std::string_view path = words[1];
  if (path.ends_with(';')) path = path.substr(0, path.find(';'));
  return ComponentNameAndPath{std::string(words[0]), std::string(path)};
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::masterFileChanged() const {
  if (!loadTime_) return false;
  const auto file = platform_.files.attributes(configPath_);
  if (!file || file.value().modified <= *loadTime_) return false;
  logDebug_source(fill("Detected master configuration changed, re-loading %@", {kMasterFileName}), "");
  return true;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::loadMasterConfiguration(bool& reread) {
  reread = false;
  if (!platform_.files.exists(configPath_)) {
    logWarning_source(fill("configuration file not found: \"%@\"", {configPath_}), "");
    return false;
  }
  if (loadedConfigPaths_ && !masterFileChanged()) return true;
  // What was loaded is given up only when the lines that replace it are there.
  const auto lines = loadConfigLinesAtPath(configPath_);
  if (!lines) return false;
  loadedConfigPaths_.emplace();
  loadedComments_.clear();
  reread = true;
  for (const std::string& line : *lines) takeConfigLine(line);
  return true;
}

void NOTIFICATION_PLUGIN_MasterConfiguration::takeConfigLine(const std::string& line) {
  switch (getConfigurationLineType(line)) {
    case kLineComponent:
      if (const auto parsed = parseComponentNameAndPathFromLine(line)) cachePathConfig(*parsed);
      break;
    case kLineComment:
      loadedComments_.push_back(line);
      break;
    case kLineInvalid:
      logError_source(fill("Found invalid %@ entry (line ignored): \"%@\"", {kMasterFileName, line}), "");
      break;
    default:
      break;
  }
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::loadAllConfigurations() {
  bool reread = false;
  if (!loadMasterConfiguration(reread)) return false;
  if (reread) loadedComponents_ = ComponentLists();
  if (loadedComponents_.empty()) {
    for (const auto& [name, paths] : *loadedConfigPaths_) {
      for (const std::string& path : paths) cacheNewComponentForName_andPath(name, path);
    }
  }
  for (const auto& [name, components] : loadedComponents_) {
    for (const auto& component : components) {
      if (!component->loadDocument()) return false;
    }
  }
  return true;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::revertMasterConfiguration() {
  loadedConfigPaths_.reset();
  return loadAllConfigurations();
}

}  // namespace tessard
