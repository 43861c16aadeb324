#include <cerrno>
#include <utility>

#include "common/DurableReplace.h"
#include "common/Format.h"
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
  const auto look = lookAtFile();
  const auto file = look ? std::optional(look.value()) : std::nullopt;
  if (!file && !documentFileExists()) {
    couldNotBeRead_ = !configXMLDocument_ && mayPass(look.error());
    return true;
  }
  if (!isChanged(file)) return true;
  if (configXMLDocument_ && configDirty_) giveUpChanges();
  readDocument(file, now);
  return true;
}

// Somebody edits the file while it is being changed: the edit is read, as it must be, and who made the
// changes must not believe that they were saved.
void NOTIFICATION_PLUGIN_ComponentConfiguration::giveUpChanges() {
  logError_source(fill("changes of \"%@\" that were not saved are given up: %@",
                       {configPath_, changedMeanwhile().description()}),
                  "");
  platform_.changes.fail();
  platform_.changes.leave(*configPath_);
}

Result<FileAttributes> NOTIFICATION_PLUGIN_ComponentConfiguration::lookAtFile() const {
  return configPath_ ? platform_.files.attributes(*configPath_) : SystemError(ENOENT);
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::readDocument(const std::optional<FileAttributes>& file,
                                                              FileTime now) {
  loadTime_ = momentOfLook(file, now);
  if (file && isAsSaved(*file, now)) {
    readVersion_->isAnyOfContent = false;
    logDebug_source(fill("Document loaded: %@", {lastPathComponent(*configPath_)}), "");
    return;
  }
  if (auto copy = file && known_ ? known_->copyOf(configName_, *file) : std::nullopt) {
    takeDocument(std::move(copy->document), copy->version);
    return;
  }
  auto bytes = platform_.files.readFile(*configPath_, kMaximumFileSize);
  const auto version = file && bytes ? std::optional(versionOf(*file, bytes.value())) : std::nullopt;
  if (version && isAsSaved(*version)) {
    readVersion_ = version;
    logDebug_source(fill("Document loaded: %@", {lastPathComponent(*configPath_)}), "");
    return;
  }
  takeDocument(bytes ? parsed(std::move(bytes).value()) : Result<XmlDocument>(SystemError(bytes.error())),
               version);
}

void NOTIFICATION_PLUGIN_ComponentConfiguration::takeDocument(Result<XmlDocument> document,
                                                              const std::optional<FileVersion>& version) {
  setConfigXMLDocument(std::nullopt);
  configDirty_ = false;
  couldNotBeRead_ = !document && mayPass(document.error());
  if (document) {
    setConfigXMLDocument(std::move(document).value());
    readVersion_ = version;
    logDebug_source(fill("Document loaded: %@", {lastPathComponent(*configPath_)}), "");
    return;
  }
  logError_source(fill("Failed to load component configuration %@.xml (error %ld)",
                       {configName_, document.error().code()}),
                  "");
  logError_source(fill("Load failure configuration file: %@", {configPath_}), "");
  // The code alone does not tell a person where to look.
  logWarning_source(fill("Reason of the load failure: %@", {document.error().description()}), "");
}

// What was written here is not parsed, and not even read when it was written so long ago that an edit since
// would have given the file another time.
bool NOTIFICATION_PLUGIN_ComponentConfiguration::isAsSaved(const FileAttributes& file, FileTime now) const {
  return isTreeOfFile() && isSameFile(*readVersion_, file) && file.modified < now &&
         !isWithinATick(file.modified, now);
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::isAsSaved(const FileVersion& version) const {
  return isTreeOfFile() && readVersion_->digest == version.digest;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::isTreeOfFile() const {
  return configXMLDocument_ && treeIsAsSaved_ && !configDirty_ && readVersion_ &&
         !hasGrown(*configXMLDocument_);
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
  const auto file = configXMLDocument_ ? lookAtFile() : SystemError(ENOENT);
  return isChanged(file ? std::optional(file.value()) : std::nullopt);
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::isChanged(const std::optional<FileAttributes>& file) const {
  if (!configXMLDocument_) return true;
  if (!file || !loadTime_ || file->modified <= *loadTime_) return false;
  logInfo_source(
      fill("External configuration change detected, re-loading: %@", {lastPathComponent(*configPath_)}), "");
  return true;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::saveDocument() {
  if (!configDirty_) return true;
  ReplacementBatch batch(platform_.files);
  return stageDocument(batch) && documentReplaced(batch.replace().front());
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::stageDocument(ReplacementBatch& batch) {
  if (!configXMLDocument_ || !configPath_) return false;
  auto bytes = configXMLDocument_->serialize();
  if (!bytes) return false;
  stagedVersion_ = versionOf(bytes.value());
  batch.stage(*configPath_, std::move(bytes).value(), kConfigurationFileOwnership, readVersion_);
  return true;
}

bool NOTIFICATION_PLUGIN_ComponentConfiguration::documentReplaced(const Replacement& saved) {
  if (saved.outcome == ReplaceOutcome::temporaryNotWritten) {
    logWarning_source(fill("Reason of the save failure: %@", {saved.error.description()}), "");
    logError_source(fill("error saving configuration file: \"%@\"", {temporaryPathFor(*configPath_)}), "");
  }
  if (saved.outcome == ReplaceOutcome::notExchangedBack) {
    logError_source(fill("previous version could not be kept as backup, it is left in \"%@\"",
                         {temporaryPathFor(*configPath_)}),
                    "");
  }
  if (saved.outcome == ReplaceOutcome::changedMeanwhile) {
    logError_source(fill("\"%@\" is not saved: %@", {configPath_, saved.error.description()}), "");
    platform_.changes.leave(*configPath_);
  }
  if (saved.outcome != ReplaceOutcome::replaced) return false;
  readVersion_ = versionOf(saved.is, stagedVersion_);
  treeIsAsSaved_ = true;
  configDirty_ = false;
  logDebug_source(fill("%@ configuration saved: %@.", {configName_, configPath_}), "");
  return true;
}

}  // namespace tessard
