#pragma once

#include "host/ctl/CtlArguments.h"
#include "host/ctl/CtlOutput.h"

namespace tessard {

/// Carries out one verb. Gives the exit code.
int runVerb(const CtlArguments& arguments, const CtlOutput& output);

}  // namespace tessard
