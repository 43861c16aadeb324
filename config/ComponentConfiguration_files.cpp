#include "common/DurableReplace.h"
#include "common/Format.h"
#include "common/SameFile.h"
#include "config/ComponentConfiguration.h"
#include "config/FileMoments.h"
#include "config/ServiceAccount.h"

namespace tessard {

namespace {

// Elements that are written anew at each save leave their forerunners behind in a tree that is never dropped.
// So many more nodes than were read are a reason to read the file again.
constexpr std::size_t kNodesToSpare = 1000;

bool hasGrown(const XmlDocument& document) {
  const auto [nodes, read] = document.weight();
  return nodes > 2 * read + kNodesToSpare;
}

}  // namespace

bool NOTIFICATION_PLUGIN_ComponentConfiguration::loadDocument() {
  logDebug_source(fill("loadDocument: %@ at path: %@", {configName_, configPath_}), "");
  // Taken before the file is looked at, so that whatever is written from here on counts as a later change.
  const FileTime now = platform_.clock.now();
  // One look for all that is asked of the file: there may be a thousand of them.
  const auto file = lookAtFile();
  if (!file && !documentFileExists()) return true;
  if (isChanged(file)) {
    if (fileIsAsSaved(file)) {
      loadTime_ = momentOfLook(file, now);
      logDebug_source(fill("Document loaded: %@", {lastPathComponent(*configPath_)}), "");
      return true;
    }
    setConfigXMLDocument(std::nullopt);
  }
  if (!configXMLDocument_) readDocument(momentOfLook(file, now));
  return true;
}

std::optional<FileAttributes> NOTIFICATION_PLUGIN_ComponentConfiguration::lookAtFile() const {
  if (!configPath_) return std::nullopt;
  const auto file = platform_.files.attributes(*configPath_);
  return file ? std::optional(file.value()) : std::nullopt;
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::readDocument(FileTime moment) {
  loadTime_ = moment;
  auto bytes = platform_.files.readFile(*configPath_, kMaximumFileSize);
  auto document = bytes ? parsed(std::move(bytes).value()) : Result<XmlDocument>(SystemError(bytes.error()));
  configDirty_ = false;
  if (document) {
    setConfigXMLDocument(std::move(document).value());
    logDebug_source(fill("Document loaded: %@", {lastPathComponent(*configPath_)}), "");
    return;
  }
  setConfigXMLDocument(std::nullopt);
  logError_source(fill("Failed to load component configuration %@.xml (error %ld)",
                       {configName_, document.error().code()}),
                  "");
  logError_source(fill("Load failure configuration file: %@", {configPath_}), "");
  // The code alone does not tell a person where to look.
  logWarning_source(fill("Reason of the load failure: %@", {document.error().description()}), "");
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::documentFileExists() const {
  if (!configPath_) {
    logDebug_source(fill("internal error: nil path for component: %@", {configName_}), "");
    return false;
  }
  if (platform_.files.exists(*configPath_)) return true;
  logError_source(fill("failed to load: configuration file not found: \"%@\"", {configPath_}), "");
  return false;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::documentChangedSinceLastLoad() const {
  return isChanged(configXMLDocument_ ? lookAtFile() : std::nullopt);
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::isChanged(const std::optional<FileAttributes>& file) const {
  if (!configXMLDocument_) return true;
  if (!file || !loadTime_ || file->modified <= *loadTime_) return false;
  logInfo_source(
      fill("External configuration change detected, re-loading: %@", {lastPathComponent(*configPath_)}), "");
  return true;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::fileIsAsSaved(
    const std::optional<FileAttributes>& file) const {
  if (!configXMLDocument_ || !savedFile_ || configDirty_ || hasGrown(*configXMLDocument_)) return false;
  return file && isSameFile(*file, *savedFile_);
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::saveDocument() {
  if (!configDirty_) return true;
  ReplacementBatch batch(platform_.files);
  return stageDocument(batch) && documentReplaced(batch.replace().front());
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::stageDocument(ReplacementBatch& batch) {
  if (!configXMLDocument_ || !configPath_) return false;
  const auto bytes = configXMLDocument_->serialize();
  if (!bytes) return false;
  const auto staged = batch.stage(*configPath_, bytes.value(), kConfigurationFileOwnership);
  return staged || documentReplaced({ReplaceOutcome::temporaryNotWritten, staged.error()});
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::documentReplaced(const Replacement& saved) {
  if (saved.outcome == ReplaceOutcome::temporaryNotWritten) {
    logError_source(fill("error saving configuration file: \"%@\"", {temporaryPathFor(*configPath_)}), "");
  }
  if (saved.outcome == ReplaceOutcome::notExchangedBack) {
    logError_source(fill("previous version could not be kept as backup, it is left in \"%@\"",
                         {temporaryPathFor(*configPath_)}),
                    "");
  }
  if (saved.outcome != ReplaceOutcome::replaced) return false;
  const auto file = platform_.files.attributes(*configPath_);
  savedFile_ = file ? std::optional(file.value()) : std::nullopt;
  configDirty_ = false;
  logDebug_source(fill("%@ configuration saved: %@.", {configName_, configPath_}), "");
  return true;
}

}  // namespace tessard
