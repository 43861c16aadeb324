#include <sysexits.h>
#include <unistd.h>

#include "host/JsonCodec.h"
#include "host/ctl/CtlLogs.h"
#include "host/ctl/CtlVerbGroups.h"
#include "host/ctl/Following.h"

namespace tessard {

namespace {

void printLines(const CtlCall& call, const Dictionary& answer) {
  const Array* lines = answer.arrayFor("lines");
  if (!lines) return;
  for (const Value& line : *lines) call.output().line(readable(line));
}

int followLog(CtlCall& call, Dictionary request) {
  Following following;
  bool goesOn = true;
  while (goesOn) {
    bool more = false;
    const int exitCode = call.send(request, [&](const Dictionary& answer) {
      call.outlastDaemon([&] { return following.pause(); });
      tellGap(call, answer);
      const Array* lines = answer.arrayFor("lines");
      if (lines && !lines->empty()) {
        goesOn = following.write([&] {
          if (call.output().json()) {
            call.output().record(answer);
          } else {
            printLines(call, answer);
          }
        });
      }
      request.remove("lines");
      request.set("position", textFor(answer, "position", ""));
      const Value* waits = answer.find("more");
      more = waits && waits->boolValue();
      return EX_OK;
    });
    if (exitCode != EX_OK) return exitCode;
    goesOn = goesOn && following.hasReader() && (more || following.pause());
  }
  if (!following.hasReader()) _exit(EX_OK);
  return EX_OK;
}

int listLogs(CtlCall& call) {
  return call.send({{"command", "getLogPaths"}}, [&](const Dictionary& answer) {
    return answer.empty() ? call.beforeSetup("There are no logs yet") : call.printEntries(answer);
  });
}

int oneLog(CtlCall& call, const std::string& identifier) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.level || arguments.since || !arguments.components.empty()) {
    return call.usage("--level, --component and --since are for all logs together, without an IDENTIFIER.");
  }
  Dictionary request = {{"command", "tailFile"}, {"identifier", identifier}};
  if (arguments.lines) request.set("lines", *arguments.lines);
  if (!arguments.texts.empty()) request.set("withFilters", arrayOf(arguments.texts));
  if (arguments.follow) return followLog(call, std::move(request));
  return call.send(std::move(request), [&](const Dictionary& answer) {
    tellGap(call, answer);
    if (call.output().json()) {
      call.output().document(answer);
    } else {
      printLines(call, answer);
    }
    return EX_OK;
  });
}

}  // namespace

int runLog(CtlCall& call) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.words.size() > 2) return call.usage("\"log\" takes one IDENTIFIER at most.");
  if (arguments.list) {
    const bool alone = arguments.words.size() == 1 && !arguments.lines && arguments.texts.empty() &&
                       arguments.components.empty() && !arguments.level && !arguments.since &&
                       !arguments.follow;
    return alone ? listLogs(call) : call.usage("--list stands alone.");
  }
  return arguments.words.size() > 1 ? oneLog(call, arguments.words[1]) : allLogs(call);
}

}  // namespace tessard
