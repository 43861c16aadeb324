#include <sysexits.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>

#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/ServiceTypes.h"
#include "host/JsonCodec.h"
#include "host/ctl/CtlVerbGroups.h"
#include "host/ctl/SettingsArguments.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

int printSettings(CtlCall& call, const Dictionary& answer, const Words& keys) {
  const Dictionary none;
  const Dictionary* found = answer.dictionaryFor("configuration");
  const Dictionary& settings = found ? *found : none;
  if (keys.empty() && settings.empty()) return call.beforeSetup("There are no settings yet");
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

Result<Dictionary> settingsFromFile(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  if (path != "-" && !file) return SystemError::last();
  std::istream& input = path == "-" ? std::cin : file;
  const std::string text((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
  const bool isPropertyList = text.starts_with("bplist") || text.starts_with('<');
  auto value = isPropertyList ? parsePropertyList(text) : parseJson(text);
  if (!value) return SystemError(0, value.error().description());
  const Dictionary* settings = value.value().asDictionary();
  if (!settings) return SystemError(0, "it holds no dictionary");
  return *settings;
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

int setSettings(CtlCall& call, const Words& words) {
  if (words.empty() == !call.arguments().file) {
    return call.usage("\"settings set\" needs either KEY=VALUE or --file FILE.");
  }
  auto settings = call.arguments().file ? settingsFromFile(*call.arguments().file) : parseSettings(words);
  if (!settings) {
    const std::string reason = settings.error().description();
    if (!call.arguments().file) return call.usage(fill("Wrong setting: %@.", {reason}));
    const int exitCode = settings.error().code() == 0 ? EX_DATAERR : EX_NOINPUT;
    return call.output().failure("unusable-file",
                                 fill("Cannot use %@: %@.", {*call.arguments().file, reason}), exitCode);
  }
  const Dictionary& sent = settings.value();
  return call.send({{"command", "writeSettings"}, {"configuration", sent}}, [&](const Dictionary& answer) {
    if (call.output().json()) call.output().document(answer);
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
  });
}

}  // namespace

int runSettings(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2) return call.usage("\"settings\" needs \"get\" or \"set\".");
  const Words rest(words.begin() + 2, words.end());
  if (words[1] == "get") return getSettings(call, rest);
  if (words[1] == "set") return setSettings(call, rest);
  return call.usage(fill("There is no verb \"settings %@\".", {words[1]}));
}

}  // namespace tessard
