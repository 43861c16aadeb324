#include "host/ctl/CtlVerbs.h"

#include <sysexits.h>

#include <functional>
#include <map>

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/ctl/CtlVerbGroups.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

// What the daemon knows of the certificate that clients are shown; absent when there is none.
std::optional<Dictionary> certificateNow(CtlCall& call) {
  int status = 0;
  int exitCode = EX_OK;
  const auto answer = call.answerOf("GET", "/v1/health", "", status, exitCode);
  const Dictionary* certificate = answer && status == 200 ? answer->dictionaryFor("tlsCertificate") : nullptr;
  return certificate ? std::optional(*certificate) : std::nullopt;
}

void tellCertificate(const CtlCall& call, const Dictionary& certificate) {
  const std::string state = textFor(certificate, "state", "");
  if (state == "valid") return;
  const Value* days = certificate.find("daysLeft");
  std::string problem = fill("cannot be read: %@", {textFor(certificate, "file", "")});
  if (state == "expired") problem = "has expired";
  if (state == "not-yet-valid") problem = "is not valid yet";
  if (state == "ends-soon" && days) problem = fill("expires in %ld days", {days->integerValue()});
  call.output().message(
      state == "ends-soon" ? "warning" : "error",
      fill("The certificate of the service %@. See tessardctl tls-certificate show.", {problem}));
}

int state(CtlCall& call) {
  Dictionary request = {{"command", "getState"}};
  if (call.arguments().details) request.set("variant", "withDetails");
  return call.send(std::move(request), [&](const Dictionary& answer) {
    const auto certificate = certificateNow(call);
    Dictionary shown = answer;
    if (certificate && (call.output().json() || call.arguments().details)) {
      shown.set("tlsCertificate", *certificate);
    }
    const int exitCode = call.printEntries(shown);
    if (certificate && !call.output().json()) tellCertificate(call, *certificate);
    if (call.arguments().details && !call.output().json()) call.watch().showParts();
    return exitCode;
  });
}

// Before the first-time setup the settings are empty.
bool isSetUp(CtlCall& call) {
  int status = 0;
  int exitCode = EX_OK;
  const auto answer = call.answerOf("POST", "/v1/plugins/" + call.arguments().plugin,
                                    serializeJson(Dictionary{{"command", "readSettings"}}), status, exitCode);
  const Dictionary* settings = answer ? answer->dictionaryFor("configuration") : nullptr;
  return !settings || !settings->empty();
}

int changeState(CtlCall& call, const std::string& state, const std::string& expected) {
  call.showParts();
  return call.send({{"command", "setState"}, {"state", state}}, [&](const Dictionary& answer) {
    const int exitCode = call.printEntries(answer);
    // The answer is the state as it then is, also when the change failed.
    const std::string reached = textFor(answer, "state", "unknown");
    if (reached == expected) return exitCode;
    const int failed = call.output().failure(
        "state-not-reached",
        fill("The service was to be %@ and is %@; the system log may say why.", {expected, reached}),
        EX_UNAVAILABLE);
    if (expected != "RUNNING") return failed;
    if (!isSetUp(call)) call.output().note("First-time setup is not done (tessardctl setup).");
    call.watch().explain();
    return failed;
  });
}

int request(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2 || words.size() > 3)
    return call.usage("\"request\" needs a command, and at most one JSON object.");
  Dictionary request;
  if (words.size() == 3) {
    auto value = parseJson(words[2]);
    if (!value) return call.output().failure("malformed-json", value.error().description() + ".", EX_DATAERR);
    if (!value.value().asDictionary()) {
      return call.output().failure("malformed-json", "The request must be a JSON object.", EX_DATAERR);
    }
    request = *value.value().asDictionary();
  }
  request.set("command", words[1]);
  return call.send(std::move(request), [&](const Dictionary& answer) {
    call.output().document(answer);
    return EX_OK;
  });
}

int health(CtlCall& call) {
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", "/v1/health", "", exitCode);
  return answer ? call.printEntries(*answer) : exitCode;
}

int setup(CtlCall& call) {
  return call.send({{"command", "initialSetup"}}, [&](const Dictionary& answer) {
    call.output().note("First-time setup is done.");
    return call.printEntries(answer);
  });
}

// The first option that was given and does not belong to the verb, as a sentence.
std::optional<std::string> strayOption(const CtlArguments& arguments) {
  const std::string& verb = arguments.words.front();
  const std::string second = arguments.words.size() > 1 ? arguments.words[1] : "";
  if (arguments.details && verb != "state") return "--details belongs to \"state\".";
  if (arguments.file && (verb != "settings" || second != "set")) return "--file belongs to \"settings set\".";
  const bool settings = verb == "settings";
  const bool tlsImport = verb == "tls-certificate" && second == "import";
  if (arguments.check && !tlsImport && !(settings && (second == "apply" || second == "undo")))
    return "--check belongs to \"settings apply\", \"settings undo\" and \"tls-certificate import\".";
  if (arguments.force && !tlsImport) return "--force belongs to \"tls-certificate import\".";
  for (const auto* file : {&arguments.certificate, &arguments.key, &arguments.chain, &arguments.pkcs12,
                           &arguments.fromCertbot, &arguments.passPhraseFile, &arguments.passPhraseNumber}) {
    if (*file && !tlsImport) return "Certificate files belong to \"tls-certificate import\".";
  }
  if (arguments.format && !(settings && second == "export"))
    return "--format belongs to \"settings export\".";
  if (arguments.showSecrets && !(settings && (second == "get" || second == "export")))
    return "--show-secrets belongs to \"settings get\" and \"settings export\".";
  if (arguments.output && verb != "metrics") return "--output belongs to \"metrics\".";
  if (arguments.only && verb != "check") return "--only belongs to \"check\".";
  if (arguments.timeout && verb != "check") return "--timeout belongs to \"check\".";
  if (verb == "log") return std::nullopt;
  if (arguments.lines) return "--lines belongs to \"log\".";
  if (!arguments.texts.empty()) return "--text belongs to \"log\".";
  if (!arguments.components.empty()) return "--component belongs to \"log\".";
  if (arguments.level) return "--level belongs to \"log\".";
  if (arguments.since) return "--since belongs to \"log\".";
  if (arguments.follow) return "--follow belongs to \"log\".";
  if (arguments.list && verb != "check") return "--list belongs to \"log\" and \"check\".";
  return std::nullopt;
}

}  // namespace

int runVerb(const CtlArguments& arguments, const CtlOutput& output) {
  CtlCall call(arguments, output);
  const std::map<std::string, std::function<int(CtlCall&)>> plainVerbs = {
      {"state", state},
      {"start", [](CtlCall& each) { return changeState(each, "START", "RUNNING"); }},
      {"stop", [](CtlCall& each) { return changeState(each, "STOP", "STOPPED"); }},
      {"restart", [](CtlCall& each) { return changeState(each, "RESTART", "RUNNING"); }},
      {"setup", setup},
      {"health", health},
  };
  const std::map<std::string, std::function<int(CtlCall&)>> verbsWithWords = {
      {"settings", runSettings},
      {"services", runServices},
      {"service-user", runServiceUser},
      {"log", runLog},
      {"certificate", runCertificate},
      {"request", request},
      {"metrics", runMetrics},
      {"check", runCheck},
      {"tls-certificate", runTlsCertificate},
  };
  const Words& words = arguments.words;
  if (words.empty()) return call.usage("No verb is given.");
  if (const auto stray = strayOption(arguments)) return call.usage(*stray);
  const std::string& verb = words.front();
  if (const auto found = verbsWithWords.find(verb); found != verbsWithWords.end()) return found->second(call);
  const auto found = plainVerbs.find(verb);
  if (found == plainVerbs.end()) return call.unknownVerb(verb);
  if (words.size() > 1) return call.usage(fill("\"%@\" takes no arguments.", {verb}));
  return found->second(call);
}

}  // namespace tessard
