#pragma once

#include "programs/warden/WardenArguments.h"
#include "programs/warden/WardenOutput.h"

namespace tessard {

/// Carries out what is asked. Gives the exit code.
int runWarden(const WardenArguments& arguments, const WardenOutput& output);

}  // namespace tessard
