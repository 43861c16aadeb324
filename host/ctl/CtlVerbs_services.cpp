#include <sysexits.h>

#include "common/Format.h"
#include "host/ctl/CtlTable.h"
#include "host/ctl/CtlVerbGroups.h"
#include "host/ctl/SettingsArguments.h"

namespace tessard {

namespace {

using Words = CtlCall::Words;

const char* const kServicesKey = "configuredServices";

// "port=993 note=a b": what "services add" takes behind the service and its host.
std::string optionsOf(const Dictionary& service) {
  std::string options;
  for (const DictionaryEntry& entry : service) {
    if (entry.key == "service" || entry.key == "hostName") continue;
    options += (options.empty() ? "" : " ") + settingAsWord(entry.key, entry.value);
  }
  return options;
}

// A table for a terminal; otherwise lines of what "services add" takes.
int printServices(const CtlCall& call, const Dictionary& answer) {
  if (call.output().json()) {
    call.output().document(answer);
    return EX_OK;
  }
  const Array* services = answer.arrayFor(kServicesKey);
  if (!services) return EX_OK;
  std::vector<CtlRow> rows;
  for (const Value& value : *services) {
    const Dictionary* service = value.asDictionary();
    if (!service) continue;
    rows.push_back(
        {{textFor(*service, "service", "-"), textFor(*service, "hostName", "-")}, {optionsOf(*service)}});
  }
  if (call.output().columns()) {
    printTable(call.output(), rows);
    return EX_OK;
  }
  for (const CtlRow& row : rows) {
    const std::string& options = row.texts.front();
    call.output().line(row.cells[0] + " " + row.cells[1] + (options.empty() ? "" : " ") + options);
  }
  return EX_OK;
}

int listServices(CtlCall& call) {
  return call.send({{"command", "getConfiguredServices"}}, [&](const Dictionary& answer) {
    return answer.contains(kServicesKey) ? printServices(call, answer)
                                         : call.beforeSetup("There is no list yet");
  });
}

int changeServices(CtlCall& call, const char* command, const Words& words) {
  if (words.size() < 4) return call.usage(fill("\"services %@\" needs a SERVICE and a HOST.", {words[1]}));
  auto request = parseSettings(Words(words.begin() + 4, words.end()));
  if (!request) return call.usage(fill("Wrong entry: %@.", {request.error().description()}));
  for (const char* key : {"command", "service", "hostName"}) {
    if (request.value().contains(key)) return call.usage(fill("\"%@\" cannot be set like that.", {key}));
  }
  request.value().set("command", command);
  request.value().set("service", words[2]);
  request.value().set("hostName", words[3]);
  return call.send(std::move(request).value(),
                   [&](const Dictionary& answer) { return printServices(call, answer); });
}

}  // namespace

int runServices(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() < 2) return call.usage("\"services\" needs \"list\", \"add\" or \"remove\".");
  if (words[1] == "add") return changeServices(call, "addService", words);
  if (words[1] == "remove" && words.size() > 4) {
    return call.usage("\"services remove\" takes a SERVICE and a HOST alone.");
  }
  if (words[1] == "remove") return changeServices(call, "removeService", words);
  if (words[1] != "list") return call.unknownVerb("services " + words[1]);
  if (words.size() > 2) return call.usage("\"services list\" takes no arguments.");
  return listServices(call);
}

int runServiceUser(CtlCall& call) {
  const Words& words = call.arguments().words;
  if (words.size() != 2 || words[1].empty()) {
    return call.usage("\"service-user\" needs a SERVICE, such as calendar.");
  }
  return call.send({{"command", "getServiceUser"}, {"service", words[1]}}, [&](const Dictionary& answer) {
    return answer.empty() ? call.beforeSetup("There is no account yet") : call.printEntries(answer);
  });
}

}  // namespace tessard
