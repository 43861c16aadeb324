#pragma once

#include <string>
#include <vector>

#include "common/Result.h"
#include "host/check/CheckedSystem.h"

namespace tessard {

/// What the service manager says of one unit.
struct UnitFacts {
  bool isKnown = false;
  bool isEnabled = false;  ///< starts with the machine
  bool isMasked = false;
  bool isRunning = false;  ///< or about to
  bool hasFailed = false;
  std::vector<std::string> dropIns{};  ///< files that change it
};

/// Asks systemd or s6, as the configuration says. Fails with a sentence's end when the service manager cannot
/// be asked.
Result<UnitFacts> unitFacts(CheckedSystem& system, const std::string& label);

}  // namespace tessard
