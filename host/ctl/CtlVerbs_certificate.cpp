#include <sysexits.h>

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/ctl/CertificateFiles.h"
#include "host/ctl/CtlTable.h"
#include "host/ctl/CtlVerbGroups.h"
#include "platform/keychain/SecretInput.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

const char* const kNameKey = "certificateName";
const char* const kPath = "/v1/certificates";
constexpr std::size_t kShownDigits = 16;

bool isTrue(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value && value->boolValue();
}

// "8F3A6C1D2E4B5A79  until 2027-01-01  with key  CN = push.example.com", and what it is chosen for.
CtlRow rowOf(const Dictionary& certificate) {
  const Value* end = certificate.find("notAfter");
  const std::string date = end && end->asDate() ? describeDate(*end->asDate()).substr(0, 10) : "unknown";
  std::string text = textFor(certificate, "subject", "");
  if (const Array* names = certificate.arrayFor("preferredFor")) {
    for (const Value& name : *names) text += "  for " + readable(name);
  }
  return {{textFor(certificate, "sha256", "").substr(0, kShownDigits),
           (isTrue(certificate, "expired") ? "expired " : "until ") + date,
           isTrue(certificate, "hasKey") ? "with key" : "without key"},
          {std::move(text)}};
}

int printCertificates(const CtlCall& call, const Dictionary& answer) {
  if (call.output().json()) {
    call.output().document(answer);
    return EX_OK;
  }
  const Array* certificates = answer.arrayFor("certificates");
  if (!certificates) return EX_OK;
  std::vector<CtlRow> rows;
  for (const Value& certificate : *certificates) {
    if (certificate.asDictionary()) rows.push_back(rowOf(*certificate.asDictionary()));
  }
  printTable(call.output(), rows);
  return EX_OK;
}

int listCertificates(CtlCall& call) {
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", kPath, "", exitCode);
  return answer ? printCertificates(call, *answer) : exitCode;
}

int tellImported(const CtlCall& call, const Dictionary& answer) {
  const int exitCode = printCertificates(call, answer);
  const Value* added = answer.find("added");
  const bool nothing = added && added->integerValue() == 0 && !isTrue(answer, "keyAdded");
  if (nothing) call.output().note("All of it was there already.");
  return exitCode;
}

int importCertificates(CtlCall& call, const std::string& path) {
  const auto content = certificateFile(path);
  if (!content) {
    return call.output().failure(
        "unusable-file", fill("Cannot use %@: %@.", {path, content.error().description()}), EX_NOINPUT);
  }
  constexpr std::string_view kNeeded = "pass-phrase-needed";
  Dictionary request = {{"file", Data{content.value()}}};
  int exitCode = EX_OK;
  std::string id;
  auto answer = call.exchange("POST", kPath, serializeJson(request), kNeeded, id, exitCode);
  if (!answer && id == kNeeded) {
    const auto phrase = readSecret(fill("Pass phrase of %@: ", {path}));
    if (!phrase) {
      return call.output().failure(
          std::string(kNeeded),
          fill("%@ needs a pass phrase; none was typed, or is on standard input.", {path}), EX_DATAERR);
    }
    request.set("passPhrase", phrase->view());
    answer = call.exchange("POST", kPath, serializeJson(request), exitCode);
  }
  return answer ? tellImported(call, *answer) : exitCode;
}

int setCertificate(CtlCall& call, const std::string& name) {
  if (name.empty()) return call.usage("The NAME is empty; \"certificate clear\" takes the choice back.");
  return call.send({{"command", "setKorvsCertificate"}, {kNameKey, name}}, [&](const Dictionary& answer) {
    if (answer.contains(kNameKey)) return call.printEntries(answer);
    return call.output().failure(
        "not-chosen",
        fill("The certificate is not chosen. A certificate with its key must have \"%@\" in its subject "
             "(tessardctl certificate list).",
             {name}),
        EX_SOFTWARE);
  });
}

int clearCertificate(CtlCall& call) {
  return call.send({{"command", "setKorvsCertificate"}}, [&](const Dictionary& answer) {
    if (!call.errorLogged()) call.output().note("No certificate is chosen now.");
    return call.printEntries(answer);
  });
}

}  // namespace

int runCertificate(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2)
    return call.usage("\"certificate\" needs \"list\", \"import\", \"set\" or \"clear\".");
  if (words[1] == "list") {
    return words.size() == 2 ? listCertificates(call)
                             : call.usage("\"certificate list\" takes no arguments.");
  }
  if (words[1] == "import") {
    return words.size() == 3 ? importCertificates(call, words[2])
                             : call.usage("\"certificate import\" needs a FILE.");
  }
  if (words[1] == "set") {
    return words.size() == 3 ? setCertificate(call, words[2])
                             : call.usage("\"certificate set\" needs a NAME.");
  }
  if (words[1] != "clear") return call.unknownVerb("certificate " + words[1]);
  return words.size() == 2 ? clearCertificate(call) : call.usage("\"certificate clear\" takes no arguments.");
}

}  // namespace tessard
