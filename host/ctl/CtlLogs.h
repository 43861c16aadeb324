#pragma once

#include "host/ctl/CtlCall.h"

namespace tessard {

/// "log" without an identifier: what all parts of the service have logged, by time. Gives the exit code.
int allLogs(CtlCall& call);

/// Tells a person what the answer to a request for a log leaves out; nothing for what was asked for.
void tellGap(const CtlCall& call, const Dictionary& answer);

}  // namespace tessard
