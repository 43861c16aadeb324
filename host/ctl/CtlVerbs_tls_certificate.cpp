#include <fcntl.h>
#include <sysexits.h>

#include <charconv>
#include <set>

#include "common/Format.h"
#include "common/Text.h"
#include "host/JsonCodec.h"
#include "host/ctl/CertificateFiles.h"
#include "host/ctl/CtlVerbGroups.h"
#include "platform/FileDescriptor.h"
#include "platform/keychain/SecretInput.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

const char* const kPath = "/v1/tls-certificate";
const char* const kPassPhraseKey = "passPhrase";
// Where certbot keeps the newest files of each certificate.
constexpr const char* kCertbotDirectory = "/etc/letsencrypt/live/";

bool isTrue(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value && value->boolValue();
}

std::string dayAt(const Dictionary& certificate, std::string_view key) {
  constexpr std::size_t kDayLength = 10;
  const Value* moment = certificate.find(key);
  return moment && moment->asDate() ? describeDate(*moment->asDate()).substr(0, kDayLength) : "unknown";
}

std::string endOf(const Dictionary& certificate) {
  const Value* left = certificate.find("daysLeft");
  const std::int64_t days = left ? left->integerValue() : 0;
  if (days < 0) return fill("%@, expired", {dayAt(certificate, "notAfter")});
  return fill("%@, %ld days left", {dayAt(certificate, "notAfter"), days});
}

void printCertificate(const CtlCall& call, const Dictionary& certificate) {
  std::string names;
  if (const Array* all = certificate.arrayFor("names")) {
    for (const Value& name : *all) names += (names.empty() ? "" : ", ") + readable(name);
  }
  call.output().line("subject: " + textFor(certificate, "subject", ""));
  call.output().line("names: " + names);
  call.output().line("issuer: " + textFor(certificate, "issuer", ""));
  call.output().line("until: " + endOf(certificate));
  call.output().line("key: " + textFor(certificate, "key", ""));
  call.output().line("sha256: " + textFor(certificate, "sha256", ""));
}

void tellFindings(const CtlCall& call, const Dictionary& answer) {
  const Array* findings = answer.arrayFor("findings");
  if (!findings) return;
  for (const Value& each : *findings) {
    const Dictionary* finding = each.asDictionary();
    if (!finding) continue;
    call.output().message(textFor(*finding, "severity", "error"),
                          textFor(*finding, "sentence", "") + " " + textFor(*finding, "remedy", ""));
  }
}

// "port 5218 (clients): the same certificate" for each entrance and what is shown there.
void printServed(const CtlCall& call, const Dictionary& answer) {
  const Array* served = answer.arrayFor("served");
  const Dictionary* own = answer.dictionaryFor("certificate");
  const std::string digest = own ? textFor(*own, "sha256", "") : "";
  std::set<std::string> told;
  for (const Value& each : served ? *served : Array()) {
    const Dictionary* seen = each.asDictionary();
    const Value* port = seen ? seen->find("port") : nullptr;
    if (!port) continue;
    const std::string shown = textFor(*seen, "sha256", "");
    const std::string place =
        fill("served at port %ld (%@): ", {port->integerValue(), textFor(*seen, "entrance", "")});
    std::string line = place + "this certificate";
    if (shown.empty()) {
      line = place + fill("none for %@: %@", {textFor(*seen, "domain", ""), textFor(*seen, "problem", "")});
    } else if (shown != digest) {
      line = place +
             fill("another one, %@, until %@", {textFor(*seen, "subject", ""), dayAt(*seen, "notAfter")});
    }
    if (told.insert(line).second) call.output().line(line);
  }
}

int show(CtlCall& call) {
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", kPath, "", exitCode);
  if (!answer) return exitCode;
  if (call.output().json()) {
    call.output().document(*answer);
    return EX_OK;
  }
  const std::string file = textFor(*answer, "file", "");
  if (file.empty()) {
    call.output().note("The service has no certificate: clients cannot use TLS.");
    return EX_OK;
  }
  call.output().line("file: " + file);
  if (const Dictionary* certificate = answer->dictionaryFor("certificate")) {
    printCertificate(call, *certificate);
  }
  printServed(call, *answer);
  if (!isTrue(*answer, "running")) call.output().note("The service does not run.");
  tellFindings(call, *answer);
  return EX_OK;
}

// Puts the content of a file into the request. False, with the exit code, when it cannot be read.
bool addFile(const CtlCall& call, Dictionary& request, const char* key, const std::string& path,
             int& exitCode) {
  const auto content = certificateFile(path);
  if (!content) {
    exitCode = call.output().failure(
        "unusable-file", fill("Cannot use %@: %@.", {path, content.error().description()}), EX_NOINPUT);
    return false;
  }
  request.set(key, Data{content.value()});
  return true;
}

bool addFiles(const CtlCall& call, Dictionary& request, int& exitCode) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.fromCertbot) {
    const bool isDirectory = arguments.fromCertbot->find('/') != std::string::npos;
    const std::string directory = (isDirectory ? "" : kCertbotDirectory) + *arguments.fromCertbot + "/";
    return addFile(call, request, "certificate", directory + "fullchain.pem", exitCode) &&
           addFile(call, request, "key", directory + "privkey.pem", exitCode);
  }
  const std::string& first = arguments.pkcs12 ? *arguments.pkcs12 : *arguments.certificate;
  return addFile(call, request, "certificate", first, exitCode) &&
         (!arguments.chain || addFile(call, request, "chain", *arguments.chain, exitCode)) &&
         (!arguments.key || addFile(call, request, "key", *arguments.key, exitCode));
}

// From where the arguments say; absent when that is nowhere.
std::optional<Secret> givenPassPhrase(const CtlArguments& arguments) {
  if (arguments.passPhraseFile) {
    const FileDescriptor file(::open(arguments.passPhraseFile->c_str(), O_RDONLY | O_CLOEXEC));
    return file ? readSecretFrom(file.get()) : std::nullopt;
  }
  const std::string& text = *arguments.passPhraseNumber;
  int number = -1;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || number < 0) return std::nullopt;
  return readSecretFrom(number);
}

bool wantsPassPhrase(const std::optional<Dictionary>& answer, int status) {
  return answer && status != 200 && textFor(*answer, "error", "") == "pass-phrase-needed";
}

int tellRefused(CtlCall& call, int status, const Dictionary& answer) {
  const std::string id = textFor(answer, "error", "");
  if (call.output().json()) {
    call.output().document(answer);
    return exitCodeFor(status, id);
  }
  if (!answer.contains("findings")) return call.hostFailure(status, answer);
  tellFindings(call, answer);
  if (status == 400) {
    call.output().note(isTrue(answer, "mayBeForced") ? "Nothing is changed; --force takes it all the same."
                                                     : "Nothing is changed.");
    return exitCodeFor(status, id);
  }
  call.showLog(answer);
  const int exitCode = call.hostFailure(status, answer);
  if (id == "not-restarted") call.watch().explain();
  return exitCode;
}

std::string whatWasDone(const Dictionary& answer) {
  const Array* served = answer.arrayFor("served");
  if (!isTrue(answer, "running"))
    return "The service does not run; it shows this certificate from its start on.";
  const Value* unseen = answer.find("unseen");
  std::string seen =
      fill("clients get this certificate (%lu connections tried", {served ? served->size() : 0});
  if (unseen && unseen->integerValue() > 0) {
    seen += fill(", and %ld not, for want of time", {unseen->integerValue()});
  }
  seen += ")";
  if (!served || served->empty()) {
    return "The service was restarted; it listens nowhere where this could be tried.";
  }
  return (isTrue(answer, "restarted") ? "The service was restarted, and " : "Unchanged: ") + seen + ".";
}

int tellImported(CtlCall& call, const Dictionary& wrapped) {
  const Dictionary* answer = wrapped.dictionaryFor("answer");
  if (!answer) {
    return call.output().failure("malformed-answer", "The daemon's answer cannot be read.", EX_PROTOCOL);
  }
  const int exitCode = call.showLog(wrapped) ? call.tellErrorsLogged() : EX_OK;
  if (call.output().json()) {
    call.output().document(*answer);
    return exitCode;
  }
  if (const Dictionary* certificate = answer->dictionaryFor("certificate")) {
    printCertificate(call, *certificate);
  }
  tellFindings(call, *answer);
  call.output().note(call.arguments().check ? "Not imported, as --check was given." : whatWasDone(*answer));
  return exitCode;
}

int import(CtlCall& call) {
  const CtlArguments& arguments = call.arguments();
  Dictionary request = {{"check", arguments.check}, {"force", arguments.force}};
  int exitCode = EX_OK;
  if (!addFiles(call, request, exitCode)) return exitCode;
  const bool given = arguments.passPhraseFile || arguments.passPhraseNumber;
  if (given) {
    const auto phrase = givenPassPhrase(arguments);
    if (!phrase) {
      return call.output().failure("no-pass-phrase", "There is no pass phrase where it was said to be.",
                                   EX_NOINPUT);
    }
    request.set(kPassPhraseKey, phrase->view());
  }
  const std::string path = std::string(kPath) + "?with=log";
  call.showParts();
  int status = 0;
  auto answer = call.answerOf("POST", path, serializeJson(request), status, exitCode);
  if (!given && wantsPassPhrase(answer, status)) {
    const auto phrase = readSecret("Pass phrase: ");
    if (!phrase) {
      return call.output().failure("pass-phrase-needed",
                                   "A pass phrase is needed; none was typed, or is on standard input.",
                                   EX_DATAERR);
    }
    request.set(kPassPhraseKey, phrase->view());
    answer = call.answerOf("POST", path, serializeJson(request), status, exitCode);
  }
  if (!answer) return exitCode;
  return status == 200 ? tellImported(call, *answer) : tellRefused(call, status, *answer);
}

std::optional<std::string> problemWithFiles(const CtlArguments& arguments) {
  const int ways =
      (arguments.certificate ? 1 : 0) + (arguments.pkcs12 ? 1 : 0) + (arguments.fromCertbot ? 1 : 0);
  if (ways != 1) {
    return "\"tls-certificate import\" needs one of --certificate, --pkcs12 and --from-certbot.";
  }
  if (arguments.key && !arguments.certificate) return "--key belongs to --certificate.";
  if (arguments.chain && arguments.fromCertbot) return "--from-certbot brings the chain itself.";
  if (arguments.passPhraseFile && arguments.passPhraseNumber) {
    return "Only one of --passphrase-file and --passphrase-fd can be given.";
  }
  return std::nullopt;
}

}  // namespace

int runTlsCertificate(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2) return call.usage("\"tls-certificate\" needs \"show\" or \"import\".");
  if (words.size() > 2) return call.usage(fill("\"tls-certificate %@\" takes no arguments.", {words[1]}));
  if (words[1] == "show") return show(call);
  if (words[1] != "import") return call.unknownVerb("tls-certificate " + words[1]);
  if (const auto problem = problemWithFiles(call.arguments())) return call.usage(*problem);
  return import(call);
}

}  // namespace tessard
