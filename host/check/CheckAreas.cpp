#include "host/check/CheckAreas.h"

#include <algorithm>
#include <array>

namespace tessard {

namespace {

constexpr std::array kAreas = {&kFilesArea,        &kXmlArea,         &kSecretsArea, &kPortsArea,
                               &kCertificatesArea, &kDatabasesArea,   &kUnitsArea,   &kHostArea,
                               &kAccountsArea,     &kDirectoriesArea, &kPluginArea};

}  // namespace

std::span<const CheckArea* const> checkAreas() {
  return kAreas;
}

const CheckArea* checkAreaNamed(std::string_view name) {
  const auto found = std::ranges::find(kAreas, name, [](const CheckArea* area) { return area->name; });
  return found == kAreas.end() ? nullptr : *found;
}

}  // namespace tessard
