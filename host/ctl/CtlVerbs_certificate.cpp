#include <sysexits.h>

#include "common/Format.h"
#include "host/ctl/CtlVerbGroups.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

const char* const kNameKey = "certificateName";

int setCertificate(CtlCall& call, const std::string& name) {
  if (name.empty()) return call.usage("The NAME is empty; \"certificate clear\" takes the choice back.");
  return call.send({{"command", "setKorvsCertificate"}, {kNameKey, name}}, [&](const Dictionary& answer) {
    const int exitCode = call.printEntries(answer);
    if (answer.contains(kNameKey)) return exitCode;
    call.output().message("error", "The certificate is not chosen; the system log may say why.");
    return EX_SOFTWARE;
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
  if (words.size() < 2) return call.usage("\"certificate\" needs \"set\" or \"clear\".");
  if (words[1] == "set") {
    return words.size() == 3 ? setCertificate(call, words[2])
                             : call.usage("\"certificate set\" needs a NAME.");
  }
  if (words[1] != "clear") return call.usage(fill("There is no verb \"certificate %@\".", {words[1]}));
  return words.size() == 2 ? clearCertificate(call) : call.usage("\"certificate clear\" takes no arguments.");
}

}  // namespace tessard
