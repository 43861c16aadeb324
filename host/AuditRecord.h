#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Value.h"
#include "host/RequestExecutor.h"
#include "host/Requester.h"

namespace tessard {

/// A request that may change something, before and after it was carried out.
struct AuditedRequest {
  std::string plugin{};   ///< or the name of the daemon's own part
  std::string command{};  ///< of the plug-in, or an event
  Dictionary request{};
  std::optional<Dictionary> before{};  ///< the settings that the request may change, as they were
};

/// The keys of the settings that a "writeSettings" request is to change; empty for other requests.
Array settingsNamedIn(std::string_view command, const Dictionary& request);

/// Whether a command can change any setting without naming it.
bool mayChangeAllSettings(std::string_view command);

/// What the log keeps of a request:
///   "user", "uid", "pid"    who; "user" is left out when the account has no name
///   "plugin", "command"
///   "changed"               of a settings write or undo: {KEY: {"old", "new"}} for each that differs now
///   "request"               of all others: its entries but the command
///   "state"                 of the service, where the answer tells it
///   "result"                as `resultOf`
///   "errors"                how many error lines the request has logged, where there are some
/// Values under keys that `speaksOfSecret` are "***". A text is cut at 200 bytes and ends in
/// "…" then; lists and dictionaries are shortened to texts. Bytes are told as their number. At most 50
/// entries are shown; "more" says how many are not.
Dictionary auditRecord(const AuditedRequest& audited, const Requester& requester,
                       const ExecutionOutcome& outcome);

/// The record as one line without control characters.
std::string auditLine(const Dictionary& record);

}  // namespace tessard
