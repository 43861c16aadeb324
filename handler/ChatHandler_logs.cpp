#include <algorithm>

#include "handler/ChatHandler.h"

namespace tessard {

namespace {

constexpr const char* kFiltersKey = "withFilters";

// What the daemon itself and its plug-ins say, which is in the system log, too.
constexpr const char* kDaemonLog = "DAEMON_LOG";
constexpr const char* kDaemonLogPath = "/var/log/system.log";

// The word that marks a log's own lines, null where all of them are.
const char* filterWordFor(const std::string* identifier) {
  if (identifier && *identifier == "JABBER_LOG") return "_notification";
  if (identifier && *identifier == "MUC_STD_LOG") return "Rooms";
  if (identifier && *identifier == kDaemonLog) return "tessardd";
  return nullptr;
}

}  // namespace

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatHandler::logPaths() {
  auto paths = serviceWrangler_->getAllServiceLogPaths();
  if (paths) paths->set(kDaemonLog, kDaemonLogPath);
  return paths;
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::tailFileWithRequest(const Dictionary& request) {
  Dictionary adjusted = request;
  if (const char* word = filterWordFor(adjusted.stringFor("identifier"))) {
    const Array* given = adjusted.arrayFor(kFiltersKey);
    Array filters = given ? *given : Array{};
    if (std::ranges::find(filters, Value(word)) == filters.end()) filters.emplace_back(word);
    adjusted.set(kFiltersKey, std::move(filters));
  }
  return PluginRequestHandler::tailFileWithRequest(adjusted);
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::getLogPathsWithRequest(const Dictionary& /*request*/) {
  std::optional<Dictionary> paths = Dictionary{};
  if (serviceDataIsInitialized()) {
    auto* notification = notificationAtom();
    paths = notification ? notification->getServiceLogPaths() : std::nullopt;
  }
  return paths ? *paths : responseForError("CANNOT_STAT_ERR");
}

}  // namespace tessard
