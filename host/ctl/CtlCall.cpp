#include "host/ctl/CtlCall.h"

#include <sysexits.h>

#include <set>
#include <utility>

#include "common/Format.h"
#include "common/MostLike.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

// What a restart of the daemon looks like from here.
bool mayComeBack(const std::variant<ClientReply, ClientFailure>& reply) {
  if (const auto* failure = std::get_if<ClientFailure>(&reply)) {
    return failure->id == "not-running" || failure->id == "no-connection" || failure->id == "connection-lost";
  }
  constexpr int kUnavailable = 503;
  return std::get<ClientReply>(reply).status == kUnavailable;
}

}  // namespace

int exitCodeFor(int status, const std::string& id) {
  if (id == "unknown-command" || id == "unknown-area") return EX_USAGE;
  if (id == "cannot-write") return EX_CANTCREAT;
  switch (status) {
    case 400:
    case 413:
    case 415:
      return EX_DATAERR;
    case 403:
      return EX_NOPERM;
    case 404:
    case 409:
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

CtlCall::CtlCall(const CtlArguments& arguments, const CtlOutput& output)
    : arguments_(arguments),
      output_(output),
      client_(arguments.socketPath, [this](int seconds) { showWaiting(seconds); }),
      watch_(arguments.socketPath, output) {}

int CtlCall::usage(const std::string& problem) const {
  return output_.failure("usage", problem + " See tessardctl --help.", EX_USAGE);
}

int CtlCall::unknownVerb(const std::string& verb) const {
  const auto meant = mostLike(verb, ctlVerbs());
  return usage(
      fill("There is no verb \"%@\"%@.", {verb, meant ? fill("; \"%@\" may be meant", {*meant}) : ""}));
}

void CtlCall::showWaiting(int seconds) {
  if (showsParts_) watch_.showProgress();
  output_.progress(seconds);
}

int CtlCall::printEntries(const Dictionary& answer) const {
  if (output_.json()) {
    output_.document(answer);
    return EX_OK;
  }
  for (const DictionaryEntry& entry : answer) output_.line(entry.key + ": " + readable(entry.value));
  return EX_OK;
}

int CtlCall::beforeSetup(const std::string& what) const {
  return output_.failure("not-set-up", what + "; first-time setup is not done (tessardctl setup).",
                         EX_UNAVAILABLE);
}

std::optional<ClientReply> CtlCall::replyTo(const std::string& method, const std::string& path,
                                            const std::string& body, int& exitCode) {
  auto reply = client_.send(method, path, body);
  for (bool told = false; pause_ && mayComeBack(reply); told = true) {
    if (!told) output_.note("The daemon does not answer; waiting until it does.");
    if (!pause_()) {
      exitCode = EX_OK;
      return std::nullopt;
    }
    reply = client_.send(method, path, body);
  }
  output_.endProgress();
  if (const auto* failure = std::get_if<ClientFailure>(&reply)) {
    exitCode = output_.failure(failure->id, failure->message, failure->exitCode);
    return std::nullopt;
  }
  return std::get<ClientReply>(std::move(reply));
}

std::optional<std::string> CtlCall::textAt(const std::string& path, int& exitCode) {
  auto reply = replyTo("GET", path, "", exitCode);
  if (!reply) return std::nullopt;
  if (reply->status == 200) return std::move(reply->body);
  const auto answer = parseJson(reply->body);
  const Dictionary* failure = answer ? answer.value().asDictionary() : nullptr;
  exitCode = hostFailure(reply->status, failure ? *failure : Dictionary());
  return std::nullopt;
}

// The answer dictionary of a request that the daemon carried out; otherwise the failure has been told.
std::optional<Dictionary> CtlCall::exchange(const std::string& method, const std::string& path,
                                            const std::string& body, std::string_view expected,
                                            std::string& id, int& exitCode) {
  int status = 0;
  auto answer = answerOf(method, path, body, status, exitCode);
  if (!answer || status == 200) return answer;
  id = textFor(*answer, "error", "");
  if (!id.empty() && id == expected) return std::nullopt;
  showLog(*answer);
  exitCode = hostFailure(status, *answer);
  return std::nullopt;
}

std::optional<Dictionary> CtlCall::answerOf(const std::string& method, const std::string& path,
                                            const std::string& body, int& status, int& exitCode) {
  const auto reply = replyTo(method, path, body, exitCode);
  if (!reply) return std::nullopt;
  status = reply->status;
  auto answer = parseJson(reply->body);
  if (answer && answer.value().asDictionary()) return std::move(*answer.value().asDictionary());
  exitCode = output_.failure("malformed-answer", "The daemon's answer cannot be read.", EX_PROTOCOL);
  return std::nullopt;
}

std::optional<Dictionary> CtlCall::exchange(const std::string& method, const std::string& path,
                                            const std::string& body, int& exitCode) {
  std::string id;
  return exchange(method, path, body, "", id, exitCode);
}

int CtlCall::send(Dictionary request, const Finish& finish) {
  int exitCode = EX_OK;
  const auto wrapped = exchange("POST", "/v1/plugins/" + arguments_.plugin + "?with=log",
                                serializeJson(std::move(request)), exitCode);
  if (!wrapped) return exitCode;
  errorLogged_ = showLog(*wrapped);
  const Dictionary* answer = wrapped->dictionaryFor("answer");
  if (!answer) return output_.failure("malformed-answer", "The daemon's answer cannot be read.", EX_PROTOCOL);
  exitCode = answer->contains("error") ? pluginFailure(*answer) : finish(*answer);
  return exitCode == EX_OK && errorLogged_ ? tellErrorsLogged() : exitCode;
}

int CtlCall::tellErrorsLogged() const {
  return output_.toldFailure("errors-logged", errors_, EX_SOFTWARE);
}

int CtlCall::hostFailure(int status, const Dictionary& answer) const {
  const std::string id = textFor(answer, "error", "malformed-answer");
  std::string message = textFor(answer, "message", "The daemon gave no reason.");
  if (status == 403) message += " " + client_.whoMayConnect();
  return output_.failure(id, message, exitCodeFor(status, id));
}

int CtlCall::pluginFailure(const Dictionary& answer) const {
  const std::string word = textFor(answer, "error", "unknown");
  if (output_.json()) output_.document(answer);
  if (word == "NOTHING_TO_UNDO_ERR") {
    return output_.failure("nothing-to-undo", "There is no settings write that could be undone.", EX_DATAERR);
  }
  if (const Array* files = word == "CHANGED_SINCE_ERR" ? answer.arrayFor("files") : nullptr) {
    std::string names;
    for (const Value& file : *files) names += (names.empty() ? "" : ", ") + readable(file);
    return output_.failure("changed-since",
                           fill("Nothing is undone, as these files have been changed since: %@.", {names}),
                           EX_DATAERR);
  }
  std::string message = fill("The plug-in answered %@", {word});
  if (const Value* code = answer.find("serviceError")) {
    message += fill(" (%@: %@)", {*code, SystemError(static_cast<int>(code->integerValue())).description()});
  }
  if (!output_.json()) output_.message("error", message + ".");
  const std::string reason = message + (errors_.empty() ? "." : ": " + errors_);
  if (word == "INVALID_ARG_ERR") return output_.toldFailure("invalid-argument", reason, EX_DATAERR);
  return output_.toldFailure(word == "CANNOT_STAT_ERR" ? "request-failed" : "plugin-error", reason,
                             EX_SOFTWARE);
}

// Shows the lines that the request logged; true when one of them is an error.
bool CtlCall::showLog(const Dictionary& wrapped) {
  bool error = false;
  const Array* log = wrapped.arrayFor("log");
  errors_.clear();
  if (!log) return false;
  std::set<std::pair<std::string, std::string>> told;  // a file that cannot be read is met with several times
  for (const Value& line : *log) {
    const Dictionary* entry = line.asDictionary();
    if (!entry) continue;
    const std::string level = textFor(*entry, "level", "warning");
    const std::string text = textFor(*entry, "message", "");
    if (!told.emplace(level, text).second) continue;
    output_.message(level, text);
    if (level != "error") continue;
    error = true;
    errors_ += (errors_.empty() ? "" : "; ") + text;
  }
  return error;
}

}  // namespace tessard
