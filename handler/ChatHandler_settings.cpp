#include "common/Format.h"
#include "handler/ChatHandler.h"

namespace tessard {

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::readSettingsWithRequest(
    const Dictionary& request) {
  const Dictionary* options = request.dictionaryFor("optionalArguments");
  const Array* parameters = options ? options->arrayFor("parameters") : nullptr;
  std::optional<SettingsDictionary> settings = SettingsDictionary{};
  if (passGate()) {
    settings = serviceWrangler_->readAllConfigurations();
    if (settings && parameters) settings = settings->dictionaryForKeys(stringsOf(*parameters));
  }
  if (!settings) return Dictionary{};
  return Dictionary{{"configuration", std::move(*settings)}, {"readStatus", 0}};
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::writeSettingsWithRequest(const Dictionary& request) {
  const Dictionary* configuration = request.dictionaryFor("configuration");
  if (const auto problem = configuration ? problemWithConfiguration(*configuration) : std::nullopt) {
    logError_source(fill("settings refused: %@", {*problem}), "");
    return responseForError("INVALID_ARG_ERR");
  }
  const int status = passGate() ? writeConfiguration(configuration) : int{kWriteSucceeded};

  const auto settings = readSettingsWithRequest(request);
  if (!settings) {
    logDebug_source("ERROR - readSettingsWithRequest: returned NIL.", "");
    return responseForError("CANNOT_STAT_ERR");
  }
  logDebug_source("readSettingsWithRequest: returned OK.", "");
  Dictionary answer = *settings;
  if (status == kWriteSucceeded) {
    answer.set("writeStatus", status);
    // Said also when there was nothing to write.
    answer.set("needsRecycleOrRestart", true);
  } else if (status == kSavedChatsDirectoryUnusable) {
    answer.set("writeStatus", status);
  } else {
    logError_source(fill("ERROR - unexpected writeStatus (%d): fix the switch statement!", {status}), "");
  }
  return answer;
}

std::optional<std::string> NOTIFICATION_PLUGIN_ChatHandler::problemWithConfiguration(
    const Dictionary& configuration) {
  if (const Value* changeIP = configuration.find("changeip")) {
    return NetworkChangeContext::problemWithChangeIPRequest(*changeIP);
  }
  return serviceWrangler_->problemWithWriteSettings(configuration);
}

int NOTIFICATION_PLUGIN_ChatHandler::writeConfiguration(const Dictionary* configuration) {
  int status = kWriteSucceeded;
  if (const Value* changeIP = configuration ? configuration->find("changeip") : nullptr) {
    logNotice_source("Processing changeip request.", "");
    logDebug_source(fill("changeip args: %@.", {*changeIP}), "");
    serviceWrangler_->handleChangeIPRequest(
        NetworkChangeContext::networkChangeContextWithChangeIPRequest(*changeIP));
    return status;
  }
  if (configuration) {
    for (const DictionaryEntry& entry : *configuration) {
      logDebug_source(fill("Attribute Dict: key: %@, value: %@", {entry.key, entry.value}), "");
    }
  }
  // Only the status counts.
  serviceWrangler_->writeAllConfigurations_error(configuration, status);
  return status;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::refusalOfUndo(const LastChange& last) const {
  switch (last.state) {
    case LastChange::State::undoable:
      return std::nullopt;
    case LastChange::State::none:
      logError_source("there is no settings write to be undone", "");
      return responseForError("NOTHING_TO_UNDO_ERR");
    case LastChange::State::failed:
      return responseForError("CANNOT_STAT_ERR");
    case LastChange::State::changedSince:
      break;
  }
  for (const std::string& file : last.files) {
    logError_source(fill("\"%@\" has been changed since the settings were written", {file}), "");
  }
  Dictionary answer = responseForError("CHANGED_SINCE_ERR");
  answer.set("files", arrayOf(last.files));
  return answer;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::undoSettingsWithRequest(
    const Dictionary& /*request*/) {
  const LastChange undone = serviceWrangler_->undoLastWrite();
  if (auto refusal = refusalOfUndo(undone)) return refusal;
  auto answer = readSettingsWithRequest({});
  if (!answer) return std::nullopt;
  answer->set("files", arrayOf(undone.files));
  answer->set("needsRecycleOrRestart", true);
  return answer;
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::readFormerSettingsWithRequest(const Dictionary& /*request*/) {
  const LastChange last = serviceWrangler_->lastWrite();
  if (auto refusal = refusalOfUndo(last)) return *refusal;
  auto settings = serviceWrangler_->settingsBeforeLastWrite();
  if (!settings) return responseForError("CANNOT_STAT_ERR");
  return {{"configuration", std::move(*settings)}, {"files", arrayOf(last.files)}};
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::initialSetupWithRequest(const Dictionary& request) {
  logDebug_source("Handling initialSetupWithRequest.", "");
  if (!serviceDataIsInitialized()) initializeServiceDataWithReadinessCheck(false);
  if (!serviceDataIsInitialized()) return responseForError("CANNOT_STAT_ERR");
  serviceWrangler_->setPreferenceValue_forKey(true, "initialized");
  return getStateWithRequest(request);
}

}  // namespace tessard
