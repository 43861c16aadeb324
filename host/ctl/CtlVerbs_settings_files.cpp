#include <sysexits.h>

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/SecretKeys.h"
#include "host/ctl/CtlSettings.h"
#include "host/ctl/SettingsDifferences.h"
#include "host/ctl/SettingsFile.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

constexpr int kDifferent = 1;  // what programs that compare end with when they have found something

Value shown(const std::string& key, const Value& value) {
  return speaksOfSecret(key) ? Value("***") : value;
}

// What a setting that vanishes or appears reads, for people.
std::string readableOr(const std::string& key, const std::optional<Value>& value) {
  return value ? readable(shown(key, *value)) : "(none)";
}

Dictionary documentOf(const std::vector<SettingDifference>& differences) {
  Dictionary all;
  for (const auto& [key, old, wanted] : differences) {
    Dictionary one;
    if (old) one.set("old", shown(key, *old));
    if (wanted) one.set("new", shown(key, *wanted));
    all.set(key, std::move(one));
  }
  return {{"changed", !differences.empty()}, {"differences", std::move(all)}};
}

void printDifferences(const CtlCall& call, const std::vector<SettingDifference>& differences) {
  for (const auto& [key, old, wanted] : differences) {
    call.output().line(fill("%@: %@ -> %@", {key, readableOr(key, old), readableOr(key, wanted)}));
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

// The settings as a request answers them, and the files that it concerns.
int tellUndone(CtlCall& call, const Dictionary& current, const Dictionary& answer) {
  const Dictionary none;
  const Dictionary* found = answer.dictionaryFor("configuration");
  const auto differences = allDifferencesBetween(found ? *found : none, current);
  const Value* files = answer.find("files");
  if (call.output().json()) {
    Dictionary document = documentOf(differences);
    document.set("changed", true);
    document.setIfPresent("files", files);
    call.output().document(document);
  } else {
    printDifferences(call, differences);
  }
  if (differences.empty()) call.output().note("No setting reads otherwise for that.");
  if (call.arguments().check) {
    call.output().note("Not undone, as --check was given.");
  } else {
    call.output().note(
        "The last settings write is undone. That takes effect with the next restart (tessardctl restart); to "
        "undo "
        "it in turn makes the write again.");
  }
  return EX_OK;
}

}  // namespace

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
  for (const SettingDifference& each : *differences)
    sent.setIfPresent(each.key, each.wanted ? &*each.wanted : nullptr);
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

int undoSettings(CtlCall& call, const Words& words) {
  if (!words.empty()) return call.usage("\"settings undo\" takes no arguments.");
  int exitCode = EX_OK;
  const auto current = currentSettings(call, exitCode);
  if (!current) return exitCode;
  const char* command = call.arguments().check ? "readFormerSettings" : "undoSettings";
  return call.send({{"command", command}},
                   [&](const Dictionary& answer) { return tellUndone(call, *current, answer); });
}

}  // namespace tessard
