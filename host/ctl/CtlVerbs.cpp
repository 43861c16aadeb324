#include "host/ctl/CtlVerbs.h"

#include <sysexits.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>

#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/ServiceTypes.h"
#include "host/JsonCodec.h"
#include "host/ctl/ServiceWatch.h"
#include "host/ctl/SettingsArguments.h"
#include "host/ctl/UnixHttpClient.h"

namespace tessard {

namespace {

using Words = std::vector<std::string>;

// One call of tessardctl on its way to an exit code.
class Call {
 public:
  Call(const CtlArguments& arguments, const CtlOutput& output)
      : arguments_(arguments),
        output_(output),
        client_(arguments.socketPath, [this](int seconds) { showWaiting(seconds); }),
        watch_(arguments.socketPath, output) {}

  int run();

 private:
  /// What is left to do with an answer that holds no error.
  using Finish = std::function<int(const Dictionary& answer)>;

  void showWaiting(int seconds);
  int state();
  int changeState(const std::string& state, const std::string& expected);
  int settings();
  int getSettings(const Words& keys);
  int setSettings(const Words& words);
  int request();
  int health();

  int usage(const std::string& problem) const {
    return output_.failure("usage", problem + " See tessardctl --help.", EX_USAGE);
  }
  std::optional<Dictionary> exchange(const std::string& method, const std::string& path,
                                     const std::string& body, int& exitCode);
  int send(Dictionary request, const Finish& finish);
  int hostFailure(int status, const Dictionary& answer) const;
  int pluginFailure(const Dictionary& answer) const;
  bool showLog(const Dictionary& wrapped) const;
  int printEntries(const Dictionary& answer) const;
  int printSettings(const Dictionary& answer, const Words& keys) const;
  int tellHowWritten(const Dictionary& sent, const Dictionary& current) const;
  Result<Dictionary> settingsFromFile(const std::string& path) const;

  const CtlArguments& arguments_;
  const CtlOutput& output_;
  UnixHttpClient client_;
  ServiceWatch watch_;
  bool changesState_ = false;  ///< so that the parts' progress is of interest
  bool errorLogged_ = false;   ///< by the request that was sent last
};

int exitCodeFor(int status, const std::string& id) {
  if (id == "unknown-command") return EX_USAGE;
  switch (status) {
    case 400:
    case 413:
    case 415:
      return EX_DATAERR;
    case 403:
      return EX_NOPERM;
    case 404:
      return EX_UNAVAILABLE;
    case 408:
    case 503:
      return EX_TEMPFAIL;
    default:
      return EX_SOFTWARE;
  }
}

std::string textFor(const Dictionary& dictionary, std::string_view key, const std::string& otherwise) {
  const std::string* text = dictionary.stringFor(key);
  return text ? *text : otherwise;
}

int Call::run() {
  const Words& words = arguments_.words;
  const std::map<std::string, std::function<int()>> plainVerbs = {
      {"state", [this] { return state(); }},
      {"start", [this] { return changeState("START", "RUNNING"); }},
      {"stop", [this] { return changeState("STOP", "STOPPED"); }},
      {"restart", [this] { return changeState("RESTART", "RUNNING"); }},
      {"setup",
       [this] {
         return send({{"command", "initialSetup"}}, [this](const Dictionary& answer) {
           output_.note("First-time setup is done.");
           return printEntries(answer);
         });
       }},
      {"health", [this] { return health(); }},
  };
  if (words.empty()) return usage("No verb is given.");
  const std::string& verb = words.front();
  if (arguments_.details && verb != "state") return usage("--details belongs to \"state\".");
  if (arguments_.file && (verb != "settings" || words.size() < 2 || words[1] != "set")) {
    return usage("--file belongs to \"settings set\".");
  }
  if (verb == "settings") return settings();
  if (verb == "request") return request();
  const auto found = plainVerbs.find(verb);
  if (found == plainVerbs.end()) return usage(fill("There is no verb \"%@\".", {verb}));
  if (words.size() > 1) return usage(fill("\"%@\" takes no arguments.", {verb}));
  return found->second();
}

void Call::showWaiting(int seconds) {
  if (changesState_) watch_.showProgress();
  output_.progress(seconds);
}

int Call::state() {
  Dictionary request = {{"command", "getState"}};
  if (arguments_.details) request.set("variant", "withDetails");
  return send(std::move(request), [this](const Dictionary& answer) {
    const int exitCode = printEntries(answer);
    if (arguments_.details && !output_.json()) watch_.showParts();
    return exitCode;
  });
}

int Call::changeState(const std::string& state, const std::string& expected) {
  changesState_ = true;
  return send({{"command", "setState"}, {"state", state}}, [&](const Dictionary& answer) {
    const int exitCode = printEntries(answer);
    // The answer is the state as it then is, also when the change failed.
    const std::string reached = textFor(answer, "state", "unknown");
    if (reached == expected) return exitCode;
    output_.message("error", fill("The service was to be %@ and is %@; the system log may say why.",
                                  {expected, reached}));
    if (expected == "RUNNING") watch_.explain();
    return EX_UNAVAILABLE;
  });
}

int Call::settings() {
  const Words& words = arguments_.words;
  if (words.size() < 2) return usage("\"settings\" needs \"get\" or \"set\".");
  const Words rest(words.begin() + 2, words.end());
  if (words[1] == "get") return getSettings(rest);
  if (words[1] == "set") return setSettings(rest);
  return usage(fill("There is no verb \"settings %@\".", {words[1]}));
}

int Call::getSettings(const Words& keys) {
  Dictionary request = {{"command", "readSettings"}};
  if (!keys.empty()) request.set("optionalArguments", Dictionary{{"parameters", arrayOf(keys)}});
  return send(std::move(request), [&](const Dictionary& answer) { return printSettings(answer, keys); });
}

int Call::printSettings(const Dictionary& answer, const Words& keys) const {
  const Dictionary none;
  const Dictionary* found = answer.dictionaryFor("configuration");
  const Dictionary& settings = found ? *found : none;
  if (output_.json()) {
    output_.document(settings);
  } else {
    for (const DictionaryEntry& entry : settings) output_.line(settingAsWord(entry.key, entry.value));
  }
  if (keys.empty() && settings.empty()) {
    output_.message("error", "There are no settings yet; first-time setup is not done (tessardctl setup).");
    return EX_UNAVAILABLE;
  }
  int exitCode = EX_OK;
  for (const std::string& key : keys) {
    if (settings.contains(key)) continue;
    output_.message("error", fill("There is no setting \"%@\".", {key}));
    exitCode = EX_DATAERR;
  }
  return exitCode;
}

Result<Dictionary> Call::settingsFromFile(const std::string& path) const {
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

int Call::setSettings(const Words& words) {
  if (words.empty() == !arguments_.file) {
    return usage("\"settings set\" needs either KEY=VALUE or --file FILE.");
  }
  auto settings = arguments_.file ? settingsFromFile(*arguments_.file) : parseSettings(words);
  if (!settings) {
    const std::string reason = settings.error().description();
    if (!arguments_.file) return usage(fill("Wrong setting: %@.", {reason}));
    const int exitCode = settings.error().code() == 0 ? EX_DATAERR : EX_NOINPUT;
    return output_.failure("unusable-file", fill("Cannot use %@: %@.", {*arguments_.file, reason}), exitCode);
  }
  const Dictionary& sent = settings.value();
  return send({{"command", "writeSettings"}, {"configuration", sent}}, [&](const Dictionary& answer) {
    if (output_.json()) output_.document(answer);
    const Dictionary* current = answer.dictionaryFor("configuration");
    const Value* status = answer.find("writeStatus");
    if (!current || current->empty()) {
      output_.message("error", "Nothing was written; first-time setup is not done (tessardctl setup).");
      return EX_UNAVAILABLE;
    }
    if (status && status->integerValue() == kSavedChatsDirectoryUnusable) {
      output_.message("error",
                      "The settings are refused: the directory for saved chats could not be made usable.");
      return EX_CANTCREAT;
    }
    if (!status || status->integerValue() != kWriteSucceeded) {
      output_.message("error", "The settings could not be written; the system log may say why.");
      return EX_SOFTWARE;
    }
    return tellHowWritten(sent, *current);
  });
}

// The service keeps unknown settings without using them, and takes an unknown word for one that it knows; its
// answer does not say so, but the settings as they then read do.
int Call::tellHowWritten(const Dictionary& sent, const Dictionary& current) const {
  if (errorLogged_) {
    output_.note(
        "What the errors name may not be written; the rest takes effect with the next restart (tessardctl "
        "restart).");
    return EX_SOFTWARE;
  }
  output_.note("The settings are written. They take effect with the next restart (tessardctl restart).");
  if (sent.contains("changeip")) return EX_OK;
  int exitCode = EX_OK;
  for (const auto& [key, value] : sent) {
    const Value* reads = current.find(key);
    if (!reads) {
      output_.message("error", fill("There is no setting \"%@\"; it has no effect.", {key}));
      exitCode = EX_DATAERR;
    } else if (value.asString() && reads->asString() && !value.asString()->empty() && !(*reads == value)) {
      output_.message("warning", fill("\"%@\" reads \"%@\" now.", {key, *reads}));
    }
  }
  return exitCode;
}

int Call::request() {
  const Words& words = arguments_.words;
  if (words.size() < 2 || words.size() > 3)
    return usage("\"request\" needs a command, and at most one JSON object.");
  Dictionary request;
  if (words.size() == 3) {
    auto value = parseJson(words[2]);
    if (!value) return output_.failure("malformed-json", value.error().description() + ".", EX_DATAERR);
    if (!value.value().asDictionary()) {
      return output_.failure("malformed-json", "The request must be a JSON object.", EX_DATAERR);
    }
    request = *value.value().asDictionary();
  }
  request.set("command", words[1]);
  return send(std::move(request), [this](const Dictionary& answer) {
    output_.document(answer);
    return EX_OK;
  });
}

int Call::health() {
  int exitCode = EX_OK;
  const auto answer = exchange("GET", "/v1/health", "", exitCode);
  return answer ? printEntries(*answer) : exitCode;
}

int Call::printEntries(const Dictionary& answer) const {
  if (output_.json()) {
    output_.document(answer);
    return EX_OK;
  }
  for (const DictionaryEntry& entry : answer) output_.line(entry.key + ": " + readable(entry.value));
  return EX_OK;
}

// The answer dictionary of a request that the daemon carried out; otherwise the failure has been told.
std::optional<Dictionary> Call::exchange(const std::string& method, const std::string& path,
                                         const std::string& body, int& exitCode) {
  const auto reply = client_.send(method, path, body);
  output_.endProgress();
  if (const auto* failure = std::get_if<ClientFailure>(&reply)) {
    exitCode = output_.failure(failure->id, failure->message, failure->exitCode);
    return std::nullopt;
  }
  const auto& [status, text] = std::get<ClientReply>(reply);
  const auto answer = parseJson(text);
  if (!answer || !answer.value().asDictionary()) {
    exitCode = output_.failure("malformed-answer", "The daemon's answer cannot be read.", EX_PROTOCOL);
    return std::nullopt;
  }
  if (status == 200) return *answer.value().asDictionary();
  showLog(*answer.value().asDictionary());
  exitCode = hostFailure(status, *answer.value().asDictionary());
  return std::nullopt;
}

int Call::send(Dictionary request, const Finish& finish) {
  int exitCode = EX_OK;
  const auto wrapped = exchange("POST", "/v1/plugins/" + arguments_.plugin + "?with=log",
                                serializeJson(std::move(request)), exitCode);
  if (!wrapped) return exitCode;
  errorLogged_ = showLog(*wrapped);
  const Dictionary* answer = wrapped->dictionaryFor("answer");
  if (!answer) return output_.failure("malformed-answer", "The daemon's answer cannot be read.", EX_PROTOCOL);
  exitCode = answer->contains("error") ? pluginFailure(*answer) : finish(*answer);
  return exitCode == EX_OK && errorLogged_ ? EX_SOFTWARE : exitCode;
}

int Call::hostFailure(int status, const Dictionary& answer) const {
  const std::string id = textFor(answer, "error", "malformed-answer");
  std::string message = textFor(answer, "message", "The daemon gave no reason.");
  if (status == 403) message += " " + client_.whoMayConnect();
  return output_.failure(id, message, exitCodeFor(status, id));
}

int Call::pluginFailure(const Dictionary& answer) const {
  const std::string id = textFor(answer, "error", "unknown");
  std::string message = fill("The plug-in answered %@", {id});
  if (const Value* code = answer.find("serviceError")) {
    message += fill(" (%@: %@)", {*code, SystemError(static_cast<int>(code->integerValue())).description()});
  }
  if (output_.json()) {
    output_.document(answer);
  } else {
    output_.message("error", message + ".");
  }
  return id == "INVALID_ARG_ERR" ? EX_DATAERR : EX_SOFTWARE;
}

// Shows the lines that the request logged; true when one of them is an error.
bool Call::showLog(const Dictionary& wrapped) const {
  bool error = false;
  const Array* log = wrapped.arrayFor("log");
  if (!log) return false;
  for (const Value& line : *log) {
    const Dictionary* entry = line.asDictionary();
    if (!entry) continue;
    const std::string level = textFor(*entry, "level", "warning");
    output_.message(level, textFor(*entry, "message", ""));
    error = error || level == "error";
  }
  return error;
}

}  // namespace

int runVerb(const CtlArguments& arguments, const CtlOutput& output) {
  return Call(arguments, output).run();
}

}  // namespace tessard
