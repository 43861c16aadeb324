#include <sstream>

#include "atoms/AuthenticationLevel.h"
#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"
#include "common/Text.h"
#include "config/JabberPaths.h"
#include "config/MasterConfiguration.h"

namespace tessard {

namespace {

// The second suffix, from port 0, can match no live connection; its counter is part of the answer all the
// same.
constexpr int kClientPorts[] = {5218, 0};
constexpr std::size_t kFieldsOfConnection = 6;

bool isEmptyText(const Value* value) {
  const std::string* text = value ? value->asString() : nullptr;
  return text && text->empty();
}

// The index of the first client port that the local address of an established IPv4 connection ends in.
std::optional<std::size_t> clientPortOf(const std::string& line) {
  std::vector<std::string> fields = componentsOf(line, ' ');
  std::erase(fields, "");
  if (fields.size() < kFieldsOfConnection || !fields[0].starts_with("tcp4") ||
      !fields[5].starts_with("ESTABLISHED")) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < std::size(kClientPorts); ++i) {
    if (fields[3].ends_with(fill(".%d", {kClientPorts[i]}))) return i;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> NOTIFICATION_PLUGIN_JabberServiceAtom::stringAt(const std::string& path) {
  int state = kNodeNotFound;
  return config().getStringValueForPath_nodeState(path, state);
}

std::string NOTIFICATION_PLUGIN_JabberServiceAtom::liveStringAt(const std::string& path) {
  int state = kNodeNotFound;
  const auto text = config().getStringValueForPath_nodeState(path, state);
  return state == kNodeLive ? text.value_or("") : "";
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::readSwitch(const char* key, const std::string& path,
                                                       SettingsDictionary& settings) {
  if (const auto text = stringAt(path)) settings.set(key, integerReading(*text) != 0);
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::readPreferenceSettings(const Dictionary& preferences,
                                                                   std::initializer_list<const char*> keys,
                                                                   SettingsDictionary& settings) {
  for (const char* key : keys) settings.setIfPresent(key, preferences.find(key));
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::readDomainSettings(const Dictionary& preferences,
                                                               SettingsDictionary& settings) {
  const Value* joined = preferences.find("hostsCommaDelimitedString");
  settings.setIfPresent("hostsCommaDelimitedString", joined);
  const auto domains = liveValuesAt("c2s.local.id", "hosts", preferences);
  if (!domains) return;
  settings.set("hosts", arrayOf(*domains));
  if (!joined || isEmptyText(joined)) settings.set("hostsCommaDelimitedString", joinedWith(*domains, ","));
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_JabberServiceAtom::readServiceConfiguration() {
  const Dictionary preferences = owner().loadPreferences().value_or(Dictionary{});
  const auto numberAt = [this](const std::string& path) {
    return Value(integerReading(stringAt(path).value_or("")));
  };
  SettingsDictionary settings;
  readDomainSettings(preferences, settings);
  settings.set("sslKeyFile", liveStringAt("c2s.local.pemfile"));
  settings.set("sslCAFile", liveStringAt("c2s.local.cachain"));
  settings.set("authLevel", authLevel());
  readPreferenceSettings(preferences, {"enableAutoBuddy"}, settings);
  readSwitch("enableXMPP", "s2s.local.port", settings);
  readSwitch("requireSecureS2S", "s2s.security.require_tls", settings);
  readSwitch("s2sRestrictDomains", "s2s.security.enable_whitelist", settings);
  const auto allowed = liveValuesAt("s2s.security.whitelist_domain", "s2sAllowedDomains", preferences);
  if (allowed) settings.set("s2sAllowedDomains", arrayOf(*allowed));
  readPreferenceSettings(preferences, {"logLevel", "eventLogArchiveInterval"}, settings);
  readSwitch("enableSavedChats", "router.message_logging_enabled", settings);
  if (auto location = stringAt("router.message_logging_dir")) {
    settings.set("savedChatsLocation", std::move(*location));
  }
  settings.set("savedChatsArchiveInterval", numberAt("router.message_logging_roll_days"));
  readPreferenceSettings(preferences, {"initialized", "services"}, settings);
  if (auto database = stringAt("sm.storage.sqlite.dbname")) {
    settings.set("jabberdDatabasePath", std::move(*database));
  }
  settings.set("jabberdClientPortTLS", numberAt("c2s.local.port"));
  settings.set("jabberdClientPortSSL", numberAt("c2s.local.ssl-port"));
  settings.set("jabberdS2SPort", numberAt("s2s.local.port"));
  return settings;
}

std::string NOTIFICATION_PLUGIN_JabberServiceAtom::authLevel() {
  unsigned live = 0;
  for (const Mechanism& mechanism : kMechanisms) {
    if (config().getNodeStateForPath(mechanism.path) == kNodeLive) live |= mechanism.bit;
  }
  return authLevelForMechanisms(live);
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_JabberServiceAtom::liveValuesAt(
    const std::string& path, const char* preferenceKey, const Dictionary& preferences) {
  std::vector<std::string> values;
  if (const auto matches = config().getNodesForPath_withAttributes(path, std::nullopt)) {
    for (const MatchEntry& match : *matches) {
      if (match.state == kNodeLive) values.push_back(match.node.stringValue());
    }
  }
  if (!values.empty()) return values;
  const Array* fallback = preferences.arrayFor(preferenceKey);
  return fallback ? std::optional(stringsOf(*fallback)) : std::nullopt;
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_JabberServiceAtom::getServiceDomains() {
  return liveValuesAt("c2s.local.id", "hosts", owner().loadPreferences().value_or(Dictionary{}));
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_JabberServiceAtom::getS2SAllowedDomains() {
  return liveValuesAt("s2s.security.whitelist_domain", "s2sAllowedDomains",
                      owner().loadPreferences().value_or(Dictionary{}));
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_JabberServiceAtom::getServiceConnectedUsers() {
  const TaskResult table = platform().tasks.launch_task(
      kNetstatTool, {TaskArgument::text("-n"), TaskArgument::text("-f"), TaskArgument::text("inet"),
                     TaskArgument::text("-p"), TaskArgument::text("TCP")});
  std::int64_t firstPort = 0;
  std::int64_t otherPorts = 0;
  std::istringstream lines(table.status == 0 ? table.output : "");
  for (std::string line; std::getline(lines, line);) {
    if (const auto port = clientPortOf(line)) ++(*port == 0 ? firstPort : otherPorts);
  }
  return Dictionary{{"connUsersTotal", firstPort + otherPorts},
                    {"connUsersPort1", firstPort},
                    {"connUsersPort2", otherPorts}};
}

}  // namespace tessard
