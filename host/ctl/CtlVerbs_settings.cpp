#include <sysexits.h>

#include "common/Format.h"
#include "common/ServiceTypes.h"
#include "host/SecretKeys.h"
#include "host/ctl/CtlSettings.h"
#include "host/ctl/CtlVerbGroups.h"
#include "host/ctl/SettingsArguments.h"
#include "host/ctl/SettingsDifferences.h"
#include "host/ctl/SettingsFile.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

// Who names a secret has asked for it; who wants everything may not have thought of it.
void leaveOutSecrets(const CtlCall& call, Dictionary& settings) {
  const std::vector<DictionaryEntry> all(settings.begin(), settings.end());
  for (const DictionaryEntry& entry : all) {
    if (!speaksOfSecret(entry.key)) continue;
    settings.remove(entry.key);
    call.output().note(fill("\"%@\" is left out; --show-secrets shows it.", {entry.key}));
  }
}

int printSettings(CtlCall& call, const Dictionary& answer, const Words& keys) {
  const Dictionary none;
  const Dictionary* found = answer.dictionaryFor("configuration");
  Dictionary settings = found ? *found : none;
  if (keys.empty() && settings.empty()) return call.beforeSetup("There are no settings yet");
  if (keys.empty() && !call.arguments().showSecrets) leaveOutSecrets(call, settings);
  if (call.output().json()) {
    call.output().document(settings);
  } else {
    for (const DictionaryEntry& entry : settings) call.output().line(settingAsWord(entry.key, entry.value));
  }
  int exitCode = EX_OK;
  for (const std::string& key : keys) {
    if (settings.contains(key)) continue;
    exitCode =
        call.output().failure("unknown-setting", fill("There is no setting \"%@\".", {key}), EX_DATAERR);
  }
  return exitCode;
}

int getSettings(CtlCall& call, const Words& keys) {
  Dictionary request = {{"command", "readSettings"}};
  if (!keys.empty()) request.set("optionalArguments", Dictionary{{"parameters", arrayOf(keys)}});
  return call.send(std::move(request),
                   [&](const Dictionary& answer) { return printSettings(call, answer, keys); });
}

// After errors: what the settings as they now read tell of what was sent.
void tellWhatIsMissing(const CtlCall& call, const Dictionary& sent, const Dictionary& current) {
  std::string keys;
  std::size_t missing = 0;
  for (const SettingDifference& each : differencesBetween(sent, current)) {
    keys += fill("%@\"%@\"", {keys.empty() ? "" : ", ", each.key});
    ++missing;
  }
  if (missing == 0) {
    call.output().note(
        "The settings read as they were sent; what the errors name may be missing. The rest takes effect "
        "with "
        "the next restart (tessardctl restart).");
  } else if (missing == sent.size()) {
    call.output().note("Nothing was written.");
  } else {
    call.output().note(
        fill("Not written: %@. The rest takes effect with the next restart (tessardctl restart).", {keys}));
  }
}

// The service keeps unknown settings without using them, and takes an unknown word for one that it knows; its
// answer does not say so, but the settings as they then read do.
int tellHowWritten(CtlCall& call, const Dictionary& sent, const Dictionary& current) {
  if (call.errorLogged()) {
    tellWhatIsMissing(call, sent, current);
    return call.tellErrorsLogged();
  }
  call.output().note(
      "The settings are written. They take effect with the next restart (tessardctl restart).");
  if (sent.contains("changeip")) return EX_OK;
  int exitCode = EX_OK;
  for (const auto& [key, value] : sent) {
    const Value* reads = current.find(key);
    if (!reads) {
      const auto problem = problemWithKeys({{key, value}});
      const std::string sentence = problem ? *problem : fill("There is no setting \"%@\".", {key});
      exitCode = call.output().failure("unknown-setting", sentence + " It has no effect.", EX_DATAERR);
    } else if (value.asString() && reads->asString() && !value.asString()->empty() && !(*reads == value)) {
      call.output().message("warning", fill("\"%@\" reads \"%@\" now.", {key, *reads}));
    }
  }
  return exitCode;
}

int setSettings(CtlCall& call, const Words& words) {
  const auto& path = call.arguments().file;
  if (words.empty() == !path) return call.usage("\"settings set\" needs either KEY=VALUE or --file FILE.");
  auto settings = path ? readSettingsFile(*path) : parseSettings(words);
  if (!settings && path) return unusableFile(call, *path, settings.error());
  if (!settings) return call.usage(fill("Wrong setting: %@.", {settings.error().description()}));
  const Dictionary& sent = settings.value();
  return call.send({{"command", "writeSettings"}, {"configuration", sent}}, [&](const Dictionary& answer) {
    if (call.output().json()) call.output().document(answer);
    return tellWriteStatus(call, sent, answer);
  });
}

}  // namespace

int unusableFile(const CtlCall& call, const std::string& path, const SystemError& reason) {
  return call.output().failure("unusable-file", fill("Cannot use %@: %@.", {path, reason.description()}),
                               reason.code() == 0 ? EX_DATAERR : EX_NOINPUT);
}

// What the answer to a settings write means; the exit code.
int tellWriteStatus(CtlCall& call, const Dictionary& sent, const Dictionary& answer) {
  const Dictionary* current = answer.dictionaryFor("configuration");
  const Value* status = answer.find("writeStatus");
  if (!current || current->empty()) {
    return call.beforeSetup("Nothing was written");
  }
  if (status && status->integerValue() == kSavedChatsDirectoryUnusable) {
    return call.output().failure(
        "unusable-directory",
        "The settings are refused: the directory for saved chats could not be made usable.", EX_CANTCREAT);
  }
  if (!status || status->integerValue() != kWriteSucceeded) {
    return call.output().failure(
        "not-written", "The settings could not be written; the system log may say why.", EX_SOFTWARE);
  }
  return tellHowWritten(call, sent, *current);
}

int runSettings(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2)
    return call.usage("\"settings\" needs \"get\", \"set\", \"diff\", \"apply\", \"undo\" or \"export\".");
  const Words rest(words.begin() + 2, words.end());
  if (words[1] == "get") return getSettings(call, rest);
  if (words[1] == "set") return setSettings(call, rest);
  if (words[1] == "diff") return diffSettings(call, rest);
  if (words[1] == "apply") return applySettings(call, rest);
  if (words[1] == "undo") return undoSettings(call, rest);
  if (words[1] == "export") return exportSettings(call, rest);
  return call.unknownVerb("settings " + words[1]);
}

}  // namespace tessard
