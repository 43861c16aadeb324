#pragma once

#include "host/ctl/CtlCall.h"

namespace tessard {

/// The verbs that take words of their own; the call's arguments begin with the verb. Each gives the exit
/// code.
int runSettings(CtlCall& call);
int runServices(CtlCall& call);
int runServiceUser(CtlCall& call);
int runLog(CtlCall& call);
int runCertificate(CtlCall& call);
int runCheck(CtlCall& call);
int runTlsCertificate(CtlCall& call);
int runMetrics(CtlCall& call);

}  // namespace tessard
