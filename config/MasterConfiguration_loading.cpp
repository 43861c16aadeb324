#include <algorithm>
#include <cerrno>
#include <utility>

#include "common/DurableReplace.h"
#include "common/Format.h"
#include "common/Utf8.h"
#include "config/MasterConfiguration.h"
#include "config/MasterFileLines.h"

namespace tessard {

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_MasterConfiguration::loadConfigLinesAtPath(
    std::string_view path) const {
  const auto text = readText(path);
  return text ? std::optional(linesOf(*text)) : std::nullopt;
}

std::optional<std::string> NOTIFICATION_PLUGIN_MasterConfiguration::readText(std::string_view path) const {
  auto text = platform_.files.readFile(path, kMaximumFileSize);
  const int error = !text ? text.error().code() : isUtf8(text.value()) ? 0 : EILSEQ;
  if (error == 0) return std::move(text).value();
  logError_source(fill("Failed to load %@ (error = %ld)", {kMasterFileName, error}), "");
  // The number alone does not tell a person what to do.
  logWarning_source(fill("Reason of the load failure: %@", {SystemError(error).description()}), "");
  return std::nullopt;
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

bool NOTIFICATION_PLUGIN_MasterConfiguration::isLater(const FileAttributes& file) const {
  return loadTime_ && file.modified > *loadTime_;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::isOwnWrite() const {
  return readVersion_ && readVersion_->isAnyOfContent;
}

// Whether there is nothing new in the file. One that was written here is told by its content, as somebody may
// have edited it at once. One that was read since it was last saved is read again by each request, but not in
// the midst of changes, which would then be lost.
bool NOTIFICATION_PLUGIN_MasterConfiguration::isAsKnown(const FileAttributes& file,
                                                        const FileVersion& version) const {
  if (!loadedConfigPaths_ || !readVersion_ || readVersion_->digest != version.digest) return false;
  if (isOwnWrite()) return !isLater(file);
  return platform_.changes.underWay() && readVersion_->inode == version.inode &&
         readVersion_->changed == version.changed;
}

bool NOTIFICATION_PLUGIN_MasterConfiguration::loadMasterConfiguration(bool& reread) {
  reread = false;
  const auto file = platform_.files.attributes(configPath_);
  if (!file && !mayPass(file.error())) {
    logWarning_source(fill("configuration file not found: \"%@\"", {configPath_}), "");
    return false;
  }
  if (loadedConfigPaths_ && !(file && (isOwnWrite() || isLater(file.value())))) return true;
  // What was loaded is given up only when the lines that replace it are there.
  const auto text = readText(configPath_);
  if (!text) return false;
  const auto version = file ? std::optional(versionOf(file.value(), *text)) : std::nullopt;
  const bool isKnown = version && isAsKnown(file.value(), *version);
  readVersion_ = version;
  if (isKnown) return true;
  if (loadedConfigPaths_) {
    logDebug_source(fill("Detected master configuration changed, re-loading %@", {kMasterFileName}), "");
    if (platform_.changes.underWay()) giveUpChanges();
  }
  loadedConfigPaths_.emplace();
  loadedComments_.clear();
  reread = true;
  for (const std::string& line : linesOf(*text)) takeConfigLine(line);
  return true;
}

// The components are made anew and lose what was changed in them: whoever made these changes must not believe
// that they are saved.
void NOTIFICATION_PLUGIN_MasterConfiguration::giveUpChanges() {
  logError_source(fill("changes that were not saved are given up: \"%@\" : %@",
                       {configPath_, changedMeanwhile().description()}),
                  "");
  platform_.changes.fail();
  platform_.changes.leave(configPath_);
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
  // Files that were put back bear the times that they had, which are no later than the last look at them.
  if (const std::size_t undone = platform_.changes.timesUndone(); undone != timesUndone_) {
    loadedConfigPaths_.reset();
    timesUndone_ = undone;
  }
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
