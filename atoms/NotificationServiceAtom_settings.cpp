#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/DurableReplace.h"
#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/Text.h"
#include "config/MasterConfiguration.h"

namespace tessard {

namespace {

// In the order in which a write tests for them. The password and the HTTPS switch have operations of their
// own.
constexpr std::array<std::string_view, 18> kWritableKeys = {
    "hide-nodes",        "backend", "dbuser", "rhost",           "secret",          "clusterNodes",
    "clusterHostname",   "jid",     "domain", "verbose",         "connectAsClient", "korvbridgePort",
    "korvbridgeEnabled", "dbname",  "rport",  "privilegedUsers", "dbpass",          "connectToCluster",
};

constexpr FileOwnership kUpdatedConfigOwnership = {kNotificationConfigOwnership.owner, 0,
                                                   kNotificationConfigOwnership.permissions};

constexpr std::int64_t kSecondsOfAnEditor = 2;

bool isMissing(const Result<Dictionary>& file) {
  return !file && file.error().code() == ENOENT;
}

// Whether the file has changed so lately that an editor may still be at it, who empties it first.
bool isBeingWritten(Platform& platform) {
  const FileTime now = platform.clock.now();
  const auto file = platform.files.attributes(kNotificationConfigFilePath);
  return file && std::abs(now.seconds - file.value().modified.seconds) <= kSecondsOfAnEditor;
}

}  // namespace

std::string NOTIFICATION_PLUGIN_NotificationServiceAtom::notSaved(const SystemError& reason) {
  return fill("notification settings were not saved: \"%@\" : %@",
              {kNotificationConfigFilePath, reason.description()});
}

// Without a lock this locks nothing. With one, every way out releases it.
std::unique_lock<std::mutex> NOTIFICATION_PLUGIN_NotificationServiceAtom::lockSettings() const {
  return settingsDictLock_ ? std::unique_lock(*settingsDictLock_) : std::unique_lock<std::mutex>();
}

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::getSecret() {
  auto* master = masterConfig();
  if (!master) return std::nullopt;
  master->loadAllConfigurations();
  int state = kNodeNotFound;
  return master->getStringValueForPath_nodeState("router.local.secret", state);
}

Dictionary NOTIFICATION_PLUGIN_NotificationServiceAtom::defaultSettings() {
  auto defaults = lists_.read(kNotificationDefaultConfigFilePath);
  if (defaults) return std::move(defaults).value();
  logError_source("tessard_notification: Couldn't find defaults file", "");
  if (mayPass(defaults.error())) {
    logWarning_source(
        fill("Reason: \"%@\" : %@", {kNotificationDefaultConfigFilePath, defaults.error().description()}),
        "");
  }
  return {};
}

// The first domain of the jabberd service, else the host's. A list that is there must have a first entry.
std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::servedDomain(const char* warning) {
  if (const auto domains = owner().getDomainsForService("jabberd")) {
    if (!domains->empty()) return domains->front();
    logError_source("the jabberd service has no domain for the notification service", "");
    return std::nullopt;
  }
  auto host = owner().currentHostDomain();
  if (!host) logWarning_source(warning, "");
  return host;
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::dictionaryFromSettingsFile() {
  const auto stored = lists_.read(kNotificationConfigFilePath);
  if (!stored && !isMissing(stored) && (mayPass(stored.error()) || isBeingWritten(platform()))) {
    logError_source(fill("the notification settings cannot be read: \"%@\" : %@",
                         {kNotificationConfigFilePath, stored.error().description()}),
                    "");
    return std::nullopt;
  }
  const Dictionary settings = stored ? stored.value() : Dictionary{};
  SettingsDictionary merged = defaultSettings();
  if (!settings.contains("secret")) {
    if (auto secret = getSecret()) merged.set("secret", std::move(*secret));
  }
  if (!settings.contains("domain")) {
    auto domain = servedDomain("Unable to determine jabber domain for dictionaryFromSettingsFile");
    if (!domain) return std::nullopt;
    merged.set("domain", std::move(*domain));
  }
  merged.updateWithDictionary(settings);
  if (merged.size() != settings.size()) keepSettings(stored, merged);
  return merged;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::keepSettings(const Result<Dictionary>& stored,
                                                               const SettingsDictionary& merged) {
  if (stored || isMissing(stored)) {
    const auto written = lists_.write(kNotificationConfigFilePath, merged, kNotificationConfigOwnership);
    if (!written) logWarning_source(notSaved(written.error()), "");
    return;
  }
  // Somebody's settings, with a mistake in them.
  logWarning_source(fill("the notification settings cannot be read and begin anew, what was there is kept in "
                         "\"%@\": %@",
                         {backupPathFor(kNotificationConfigFilePath), stored.error().description()}),
                    "");
  const auto content = serializePropertyList(Value(merged));
  const auto replaced = content ? replaceKeepingBackup(platform().files, kNotificationConfigFilePath,
                                                       content.value(), kNotificationConfigOwnership)
                                : Replacement{ReplaceOutcome::temporaryNotWritten, content.error()};
  if (replaced.outcome != ReplaceOutcome::replaced) logWarning_source(notSaved(replaced.error), "");
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::readServiceConfiguration() {
  const auto lock = lockSettings();
  auto settings = dictionaryFromSettingsFile();
  if (!settings) return std::nullopt;
  const auto configuration = lists_.look(kBundleConfigFilePath);
  const Value* services = configuration ? configuration.value()->find("services") : nullptr;
  settings->set("configuredServices", services ? *services : Value(Dictionary{}));
  return settings;
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::writeServiceConfiguration_error(
    const SettingsDictionary* settings, int& error) {
  error = kWriteSucceeded;
  if (settings) updateHostFrom(*settings);
  const auto lock = lockSettings();
  auto stored = dictionaryFromSettingsFile();
  if (!settings) return false;
  if (!stored) {
    logError_source("the notification settings are not known and were not written", "");
    platform().changes.fail();
    return true;
  }
  for (const DictionaryEntry& entry : *settings) {
    writeValue_forKey_inSettings(&entry.value, entry.key, *stored);
  }
  saveSettings(*stored);
  return true;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::saveSettings(const SettingsDictionary& settings) {
  const auto written = lists_.write(kNotificationConfigFilePath, settings, kNotificationConfigOwnership);
  if (written) return;
  logError_source(notSaved(written.error()), "");
  writeFailed(kNotificationConfigFilePath, written.error());
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::updateHostFrom(const SettingsDictionary& settings) {
  if (const std::string* joined = settings.stringFor("hostsCommaDelimitedString")) {
    updateConfigFile(componentsOf(*joined, ',').front());
  } else if (const Array* hosts = settings.arrayFor("hosts"); hosts && !hosts->empty()) {
    updateConfigFile(hosts->front().stringValue());
  }
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::writeValue_forKey_inSettings(const Value* value,
                                                                               const std::string& key,
                                                                               SettingsDictionary& settings) {
  if (!value) {
    logDebug_source(fill("Got empty value for key '%@', skipping", {key}), "");
    return;
  }
  if (std::ranges::find(kWritableKeys, key) != kWritableKeys.end()) settings.set(key, *value);
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::updateConfigFile(const std::optional<std::string>& host) {
  if (!host) return false;
  const auto there = isThere(platform().files, kNotificationConfigFilePath);
  if (!there) return configNotModified(there.error());
  if (!there.value()) {
    logDebug_source("Unable to find config file for Beaconry, cannot udpate", "");
    return false;
  }
  logDebug_source(fill("configuring config file for host=\"%@\"", {*host}), "");
  auto lock = lockSettings();
  auto settings = lists_.read(kNotificationConfigFilePath);
  const auto secret = getSecret();
  if (!secret) {
    logError_source("Beaconry data init failed: could not get router config data", "");
    return false;
  }
  Result<void> written = settings ? Result<void>() : Result<void>(settings.error());
  if (settings) {
    settings.value().set("domain", *host);
    settings.value().set("secret", *secret);
    written = writeConfigFile(settings.value());
  }
  if (!written) return configNotModified(written.error());
  if (lock) lock.unlock();
  if (setConfigFileAttributes()) logInfo_source("Notification config file successfully modified.", "");
  return true;
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::configNotModified(const SystemError& reason) {
  writeFailed(kNotificationConfigFilePath, reason);
  logError_source(notSaved(reason), "");
  logConfigCreationError("Beaconry config modification error");
  return false;
}

Result<void> NOTIFICATION_PLUGIN_NotificationServiceAtom::writeConfigFile(const Dictionary& settings) {
  return lists_.write(kNotificationConfigFilePath, settings, kUpdatedConfigOwnership);
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::writeFailed(const char* path, const SystemError& reason) {
  platform().changes.fail();
  if (isChangedMeanwhile(reason)) platform().changes.leave(path);
}

// A file that was written has its attributes already, unless they could not be set.
bool NOTIFICATION_PLUGIN_NotificationServiceAtom::setConfigFileAttributes() {
  const auto owned = platform().files.setOwnership(kNotificationConfigFilePath, kUpdatedConfigOwnership);
  if (owned) return true;
  logError_source(fill("setting permissions of config failed: '%@'", {owned.error().description()}), "");
  platform().changes.fail();
  return false;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::logConfigCreationError(const std::string& reason) {
  logError_source(fill("Beaconry config file modification failed! reason: %@", {reason}), "");
  logWarning_source("Beaconry may not be reachable from chat clients due to error.", "");
}

}  // namespace tessard
