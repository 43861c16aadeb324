#include "host/RequestRecords.h"

#include <chrono>
#include <utility>

namespace tessard {

namespace {

// Some failures are told by error lines alone, as the answer has no place for them.
std::string countedAs(const ExecutionOutcome& outcome) {
  std::string result = resultOf(outcome);
  return result == "done" && errorLinesOf(outcome) > 0 ? "errors" : result;
}

}  // namespace

ExecutionOutcome RequestRecords::execute(const std::string& plugin, PluginRequestHandler& handler,
                                         const std::string& command, const Dictionary& request,
                                         const Requester& requester) {
  using Clock = std::chrono::steady_clock;
  const auto begun = Clock::now();
  const bool changes = handler.commandChangesState(command);
  AuditedRequest audited;
  if (changes) {
    audited = {plugin, command, request, {}};
    Array keys = settingsNamedIn(command, request);
    if (!keys.empty()) audited.before = executor_.settings(handler, std::move(keys));
    if (mayChangeAllSettings(command)) audited.before = executor_.settings(handler);
  }
  ExecutionOutcome outcome = executor_.execute(handler, command, request);
  // Whatever else clients think of would make a metric each.
  const bool isKnown = outcome.kind != ExecutionOutcome::Kind::unknownCommand;
  tally_.requestEnded(plugin, isKnown ? command : "unknown", countedAs(outcome),
                      std::chrono::duration<double>(Clock::now() - begun).count());
  if (changes) changed(audited, requester, outcome);
  return outcome;
}

void RequestRecords::changed(const AuditedRequest& audited, const Requester& requester,
                             const ExecutionOutcome& outcome) {
  log_.notice(auditLine(auditRecord(audited, requester, outcome)));
}

}  // namespace tessard
