#include "atoms/ServicePieces.h"

#include <optional>

#include "common/Format.h"

namespace tessard {

namespace {

std::optional<FileAttributes> lookAtPiece(Platform& platform, const std::string& path) {
  const auto found = platform.files.attributes(path);
  if (found) return found.value();
  if (mayPass(found.error())) {
    Object(platform.log)
        .logWarning_source(fill("\"%@\" cannot be looked at: %@", {path, found.error().description()}), "");
  }
  return std::nullopt;
}

}  // namespace

bool pieceIsThere(Platform& platform, const std::string& path) {
  return lookAtPiece(platform, path).has_value();
}

bool directoryIsThere(Platform& platform, const std::string& path) {
  const auto found = lookAtPiece(platform, path);
  return found && found->kind == FileAttributes::Kind::directory;
}

}  // namespace tessard
