#include "common/PluginRequestHandler.h"

namespace tessard {

Dictionary PluginRequestHandler::responseForError(std::string_view code) const {
  return {{"error", code}};
}

std::optional<Dictionary> PluginRequestHandler::logPaths() {
  return std::nullopt;
}

}  // namespace tessard
