#include <sysexits.h>

#include "common/Format.h"
#include "common/ServiceTypes.h"
#include "host/JsonCodec.h"
#include "host/SecretKeys.h"
#include "host/ctl/CtlVerbGroups.h"
#include "host/ctl/SettingsArguments.h"
#include "host/ctl/SettingsDifferences.h"
#include "host/ctl/SettingsFile.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

constexpr int kDifferent = 1;  // what programs that compare end with when they have found something

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
    call.output().message("error", fill("There is no setting \"%@\".", {key}));
    exitCode = EX_DATAERR;
  }
  return exitCode;
}

int getSettings(CtlCall& call, const Words& keys) {
  Dictionary request = {{"command", "readSettings"}};
  if (!keys.empty()) request.set("optionalArguments", Dictionary{{"parameters", arrayOf(keys)}});
  return call.send(std::move(request),
                   [&](const Dictionary& answer) { return printSettings(call, answer, keys); });
}

// The service keeps unknown settings without using them, and takes an unknown word for one that it knows; its
// answer does not say so, but the settings as they then read do.
int tellHowWritten(CtlCall& call, const Dictionary& sent, const Dictionary& current) {
  if (call.errorLogged()) {
    call.output().note(
        "What the errors name may not be written; the rest takes effect with the next restart (tessardctl "
        "restart).");
    return EX_SOFTWARE;
  }
  call.output().note(
      "The settings are written. They take effect with the next restart (tessardctl restart).");
  if (sent.contains("changeip")) return EX_OK;
  int exitCode = EX_OK;
  for (const auto& [key, value] : sent) {
    const Value* reads = current.find(key);
    if (!reads) {
      call.output().message("error", fill("There is no setting \"%@\"; it has no effect.", {key}));
      exitCode = EX_DATAERR;
    } else if (value.asString() && reads->asString() && !value.asString()->empty() && !(*reads == value)) {
      call.output().message("warning", fill("\"%@\" reads \"%@\" now.", {key, *reads}));
    }
  }
  return exitCode;
}

int unusableFile(const CtlCall& call, const std::string& path, const SystemError& reason) {
  return call.output().failure("unusable-file", fill("Cannot use %@: %@.", {path, reason.description()}),
                               reason.code() == 0 ? EX_DATAERR : EX_NOINPUT);
}

// What the answer to a settings write means; the exit code.
int tellWriteStatus(CtlCall& call, const Dictionary& sent, const Dictionary& answer) {
  const Dictionary* current = answer.dictionaryFor("configuration");
  const Value* status = answer.find("writeStatus");
  if (!current || current->empty()) {
    call.output().message("error", "Nothing was written; first-time setup is not done (tessardctl setup).");
    return EX_UNAVAILABLE;
  }
  if (status && status->integerValue() == kSavedChatsDirectoryUnusable) {
    call.output().message(
        "error", "The settings are refused: the directory for saved chats could not be made usable.");
    return EX_CANTCREAT;
  }
  if (!status || status->integerValue() != kWriteSucceeded) {
    call.output().message("error", "The settings could not be written; the system log may say why.");
    return EX_SOFTWARE;
  }
  return tellHowWritten(call, sent, *current);
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

// --- whole files of settings ---

Value shown(const std::string& key, const Value& value) {
  return speaksOfSecret(key) ? Value("***") : value;
}

Dictionary documentOf(const std::vector<SettingDifference>& differences) {
  Dictionary all;
  for (const auto& [key, old, wanted] : differences) {
    Dictionary one;
    if (old) one.set("old", shown(key, *old));
    one.set("new", shown(key, wanted));
    all.set(key, std::move(one));
  }
  return {{"changed", !differences.empty()}, {"differences", std::move(all)}};
}

void printDifferences(const CtlCall& call, const std::vector<SettingDifference>& differences) {
  for (const auto& [key, old, wanted] : differences) {
    call.output().line(fill("%@: %@ -> %@", {key, old ? readable(shown(key, *old)) : std::string("(none)"),
                                             readable(shown(key, wanted))}));
  }
}

// The current settings, or the failure that was told.
std::optional<Dictionary> currentSettings(CtlCall& call, int& exitCode) {
  std::optional<Dictionary> current;
  exitCode = call.send({{"command", "readSettings"}}, [&](const Dictionary& answer) {
    const Dictionary* found = answer.dictionaryFor("configuration");
    if (!found || found->empty()) return call.beforeSetup("There are no settings yet");
    current = *found;
    return EX_OK;
  });
  if (exitCode != EX_OK) current.reset();
  return current;
}

// Reads a file of settings and what it would change. Absent, with the exit code, when something is wrong.
std::optional<std::vector<SettingDifference>> differencesOfFile(CtlCall& call, const std::string& path,
                                                                int& exitCode) {
  const auto wanted = readSettingsFile(path);
  if (!wanted) {
    exitCode = unusableFile(call, path, wanted.error());
    return std::nullopt;
  }
  if (const auto problem = problemWithKeys(wanted.value())) {
    exitCode = call.output().failure("unknown-setting", *problem, EX_DATAERR);
    return std::nullopt;
  }
  const auto current = currentSettings(call, exitCode);
  if (!current) return std::nullopt;
  return differencesBetween(wanted.value(), *current);
}

void tellDifferences(const CtlCall& call, const std::vector<SettingDifference>& differences) {
  if (call.output().json()) {
    call.output().document(documentOf(differences));
  } else {
    printDifferences(call, differences);
  }
}

int diffSettings(CtlCall& call, const Words& words) {
  if (words.size() != 1) return call.usage("\"settings diff\" needs a FILE.");
  int exitCode = EX_OK;
  const auto differences = differencesOfFile(call, words[0], exitCode);
  if (!differences) return exitCode;
  tellDifferences(call, *differences);
  return differences->empty() ? EX_OK : kDifferent;
}

int applySettings(CtlCall& call, const Words& words) {
  if (words.size() != 1) return call.usage("\"settings apply\" needs a FILE.");
  int exitCode = EX_OK;
  const auto differences = differencesOfFile(call, words[0], exitCode);
  if (!differences) return exitCode;
  if (differences->empty() || call.arguments().check) {
    tellDifferences(call, *differences);
    call.output().note(differences->empty() ? "Unchanged: the settings are as the file wants them."
                                            : "Not written, as --check was given.");
    return EX_OK;
  }
  Dictionary sent;
  for (const SettingDifference& each : *differences) sent.set(each.key, each.wanted);
  return call.send({{"command", "writeSettings"}, {"configuration", sent}}, [&](const Dictionary& answer) {
    tellDifferences(call, *differences);
    return tellWriteStatus(call, sent, answer);
  });
}

int exportSettings(CtlCall& call, const Words& words) {
  if (!words.empty()) return call.usage("\"settings export\" takes no arguments.");
  const std::string format = call.arguments().format.value_or(call.output().json() ? "json" : "yaml");
  const auto form = settingsFormNamed(format);
  if (!form) return call.usage(fill("--format must be yaml, json or plist, not \"%@\".", {format}));
  int exitCode = EX_OK;
  const auto current = currentSettings(call, exitCode);
  if (!current) return exitCode;
  const auto text = settingsText(exportedSettings(*current, call.arguments().showSecrets), *form);
  if (!text) {
    return call.output().failure(
        "unwritable", fill("Cannot be written as %@: %@.", {format, text.error().description()}), EX_DATAERR);
  }
  call.output().text(text.value());
  return EX_OK;
}

}  // namespace

int runSettings(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2)
    return call.usage("\"settings\" needs \"get\", \"set\", \"diff\", \"apply\" or \"export\".");
  const Words rest(words.begin() + 2, words.end());
  if (words[1] == "get") return getSettings(call, rest);
  if (words[1] == "set") return setSettings(call, rest);
  if (words[1] == "diff") return diffSettings(call, rest);
  if (words[1] == "apply") return applySettings(call, rest);
  if (words[1] == "export") return exportSettings(call, rest);
  return call.usage(fill("There is no verb \"settings %@\".", {words[1]}));
}

}  // namespace tessard
