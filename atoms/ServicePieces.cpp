#include "atoms/ServicePieces.h"

#include "common/Format.h"

namespace tessard {

bool pieceIsThere(Platform& platform, const std::string& path) {
  const auto there = isThere(platform.files, path);
  if (there) return there.value();
  Object(platform.log)
      .logWarning_source(fill("\"%@\" cannot be looked at: %@", {path, there.error().description()}), "");
  return false;
}

}  // namespace tessard
