#include "common/PluginRequestHandler.h"

namespace tessard {

Dictionary PluginRequestHandler::responseForError(std::string_view code) const {
  return {{"error", code}};
}

}  // namespace tessard
