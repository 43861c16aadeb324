#pragma once

#include "host/HostConfiguration.h"

namespace tessard {

/// Serves requests until SIGTERM or SIGINT: the request that runs then is finished and answered, waiting and
/// new ones are refused. Returns the process's exit status: 0 after a signal; 75 when another daemon serves
/// the root or the socket; 71 when the socket or the server cannot be had. Its reasons go to standard error
/// and the system log. Call it once, on a process's only thread.
int runDaemon(const HostConfiguration& configuration);

}  // namespace tessard
