#include <utility>

#include "atoms/NotificationPaths.h"
#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/Text.h"
#include "common/Utf8.h"
#include "coordinator/ChatServiceWrangler.h"

namespace tessard {

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::defaultPreferences() {
  const auto host = currentHostDomain();
  if (!host) return std::nullopt;
  return Dictionary{
      {"hosts", Array{*host}},
      {"sslKeyFile", ""},
      {"sslCAFile", ""},
      {"authLevel", "STANDARD"},
      {"enableAutoBuddy", false},
      {"enableXMPP", true},
      {"requireSecureS2S", false},
      {"s2sRestrictDomains", false},
      {"s2sAllowedDomains", Array{}},
      {"logLevel", "ALL"},
      {"eventLogArchiveInterval", 7},
      {"enableSavedChats", false},
      {"savedChatsLocation", "/Library/Server/Parlance/Data/message_archives"},
      {"savedChatsArchiveInterval", 7},
      {"jabberdDatabasePath", "/private/var/jabberd/sqlite/jabberd2_notification.db"},
      {"logLevelValues", Array{"NONE", "ERROR", "ALL", "DEBUG"}},
      {"initialized", false},
      {"hostsCommaDelimitedString", *host},
      {"roomsFileSharingEnabled", false},
      {"roomsFileSharingExpireIntervalHours", 168},
      {"jabberdClientPortTLS", 5218},
      {"jabberdClientPortSSL", 0},
      {"jabberdS2SPort", 5268},
  };
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::preferencesExist() {
  return platform_.files.exists(kBundleConfigFilePath);
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::loadPreferences() {
  std::optional<Dictionary> seeded;
  const Dictionary* preferences = lookAtPreferences(seeded);
  return preferences ? std::optional(*preferences) : std::nullopt;
}

// Points into `seeded` when there were none and the defaults have just been saved.
const Dictionary* NOTIFICATION_PLUGIN_ChatServiceWrangler::lookAtPreferences(
    std::optional<Dictionary>& seeded) {
  const auto stored = lists_.look(kBundleConfigFilePath);
  if (stored) return stored.value();
  if (mayPass(stored.error())) {
    logError_source(fill("the preferences cannot be read: \"%@\" : %@",
                         {kBundleConfigFilePath, stored.error().description()}),
                    "");
    // Who goes on without them would change something else than was asked for.
    platform_.changes.fail();
    return nullptr;
  }
  if (preferencesExist()) return nullptr;
  seeded = defaultPreferences();
  if (seeded) savePreferences(*seeded);
  return seeded ? &*seeded : nullptr;
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::savePreferences(const Dictionary& preferences) {
  // Success is reported whatever becomes of the write; the log tells of a failed one.
  const auto written = lists_.write(kBundleConfigFilePath, preferences, kBundleConfigOwnership);
  if (!written) {
    platform_.changes.fail();
    if (isChangedMeanwhile(written.error())) platform_.changes.leave(kBundleConfigFilePath);
    logError_source(fill("preferences were not saved: \"%@\" : %@",
                         {kBundleConfigFilePath, written.error().description()}),
                    "");
  }
  return true;
}

bool NOTIFICATION_PLUGIN_ChatServiceWrangler::setPreferenceValue_forKey(const Value& value,
                                                                        const std::string& key) {
  Dictionary preferences = loadPreferences().value_or(Dictionary{});
  preferences.set(key, value);
  return savePreferences(preferences);
}

std::optional<Value> NOTIFICATION_PLUGIN_ChatServiceWrangler::getPreferenceValueForKey(std::string_view key) {
  std::optional<Dictionary> seeded;
  const Dictionary* preferences = lookAtPreferences(seeded);
  const Value* value = preferences ? preferences->find(key) : nullptr;
  return value ? std::optional(*value) : std::nullopt;
}

std::string NOTIFICATION_PLUGIN_ChatServiceWrangler::namePart(std::string_view text,
                                                              std::string_view alsoKept) {
  std::string kept;
  for (const char32_t point : decodeUtf8(text)) {
    const bool sign = point < 0x80 && alsoKept.find(static_cast<char>(point)) != std::string_view::npos;
    if (sign || platform_.unicode.isAlphanumeric(point)) appendUtf8(kept, point);
  }
  return platform_.unicode.lowercase(kept);
}

Array NOTIFICATION_PLUGIN_ChatServiceWrangler::filteredNames(const Array& names) {
  Array filtered;
  for (const std::string& name : stringsOf(names)) {
    std::string kept = namePart(name, "-.");
    if (!kept.empty()) filtered.emplace_back(std::move(kept));
  }
  return filtered;
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_ChatServiceWrangler::filterWriteSettings(
    const SettingsDictionary* settings) {
  if (!settings) return std::nullopt;
  SettingsDictionary filtered = *settings;
  if (const Array* hosts = settings->arrayFor("hosts")) filtered.set("hosts", filteredNames(*hosts));
  if (const std::string* joined = settings->stringFor("hostsCommaDelimitedString")) {
    std::string kept = namePart(*joined, "-.,");
    if (kept.empty()) {
      filtered.remove("hostsCommaDelimitedString");
    } else {
      filtered.set("hostsCommaDelimitedString", std::move(kept));
    }
  }
  if (const Array* allowed = settings->arrayFor("s2sAllowedDomains")) {
    filtered.set("s2sAllowedDomains", filteredNames(*allowed));
  }
  return filtered;
}

}  // namespace tessard
