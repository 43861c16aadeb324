#pragma once

#include <span>
#include <string_view>

#include "host/check/CheckedSystem.h"
#include "host/check/Findings.h"

namespace tessard {

/// One part of the check. `examine` adds what it finds; it only reads, and may throw.
struct CheckArea {
  std::string_view name;
  std::string_view examines;           ///< what, in a few words
  unsigned seconds;                    ///< that it may take unless told otherwise
  std::span<const FindingKind> kinds;  ///< all that it can find
  void (*examine)(CheckedSystem& system, Findings& findings);
};

extern const CheckArea kFilesArea;
extern const CheckArea kXmlArea;
extern const CheckArea kSecretsArea;
extern const CheckArea kPortsArea;
extern const CheckArea kCertificatesArea;
extern const CheckArea kDatabasesArea;
extern const CheckArea kUnitsArea;
extern const CheckArea kHostArea;
extern const CheckArea kAccountsArea;
extern const CheckArea kDirectoriesArea;
extern const CheckArea kPluginArea;

/// All areas, in the order in which their findings are shown.
std::span<const CheckArea* const> checkAreas();

/// Null when there is no area of that name.
const CheckArea* checkAreaNamed(std::string_view name);

}  // namespace tessard
