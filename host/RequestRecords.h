#pragma once

#include <string>

#include "host/AuditRecord.h"
#include "host/HostLog.h"
#include "host/RequestExecutor.h"
#include "host/RequestTally.h"
#include "host/Requester.h"

namespace tessard {

/// Carries out requests and keeps what is to be known of them afterwards: counts for collectors, and for each
/// that may change something a line in the system log that begins with "audit: " (see `auditRecord`). On the
/// thread of the work slot.
class RequestRecords {
 public:
  /// All is borrowed.
  RequestRecords(RequestExecutor& executor, RequestTally& tally, HostLog& log)
      : executor_(executor), tally_(tally), log_(log) {}

  /// A request to the plug-in of this name.
  ExecutionOutcome execute(const std::string& plugin, PluginRequestHandler& handler,
                           const std::string& command, const Dictionary& request, const Requester& requester);

  /// A change that was made without a command of a plug-in.
  void changed(const AuditedRequest& audited, const Requester& requester, const ExecutionOutcome& outcome);

 private:
  RequestExecutor& executor_;
  RequestTally& tally_;
  HostLog& log_;
};

}  // namespace tessard
