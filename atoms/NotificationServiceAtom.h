#pragma once

#include <memory>
#include <mutex>

#include "atoms/ChatServiceAtom.h"

namespace tessard {

/// The publish-subscribe service and its push bridge. Service name "Notification".
class NOTIFICATION_PLUGIN_NotificationServiceAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  using NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom;
  ~NOTIFICATION_PLUGIN_NotificationServiceAtom() override;

  /// A new atom for the owner, which is borrowed and outlives it.
  static std::unique_ptr<NOTIFICATION_PLUGIN_NotificationServiceAtom> notificationServiceAtom(
      Platform& platform, ServiceOwner* owner);

  /// Clears the lock and the cache. Runs once, at the end of the atom's life.
  void dealloc();

  /// Held while the settings file is read and rewritten. There is none unless one is set: the plug-in has one
  /// thread.
  std::mutex* settingsDictLock() const { return settingsDictLock_.get(); }
  void setSettingsDictLock(std::unique_ptr<std::mutex> lock) { settingsDictLock_ = std::move(lock); }
  /// Nothing is kept here: what hosts resolve to is remembered for one request only.
  const std::optional<Dictionary>& hostCache() const { return hostCache_; }
  void setHostCache(std::optional<Dictionary> cache) { hostCache_ = std::move(cache); }

  /// The settings file over the defaults, the served domain and the router's secret. Written back when it has
  /// another number of keys then; an unreadable file becomes the ".bak" of the new one. Absent when no domain
  /// can be determined.
  std::optional<SettingsDictionary> dictionaryFromSettingsFile();
  /// The same and "configuredServices", an empty dictionary when there is no list.
  std::optional<SettingsDictionary> readServiceConfiguration() override;
  /// Takes over the first host and the settings that are this service's; others are left out. False without
  /// settings. A file that cannot be written only logs.
  bool writeServiceConfiguration_error(const SettingsDictionary* settings, int& error) override;
  /// One setting of a write: stored when it is this service's. A null value is skipped.
  void writeValue_forKey_inSettings(const Value* value, const std::string& key, SettingsDictionary& settings);
  /// Puts the host name and the router's secret into an existing settings file. True when it was rewritten.
  bool updateConfigFile(const std::optional<std::string>& host);
  void logConfigCreationError(const std::string& reason);
  /// The router's component secret, from the configuration on disk.
  std::optional<std::string> getSecret();

 private:
  std::unique_lock<std::mutex> lockSettings() const;
  Dictionary defaultSettings();
  std::optional<std::string> servedDomain(const char* warning);
  void keepSettings(const Result<Dictionary>& stored, const SettingsDictionary& merged);
  void updateHostFrom(const SettingsDictionary& settings);

  std::unique_ptr<std::mutex> settingsDictLock_;
  std::optional<Dictionary> hostCache_;
};

}  // namespace tessard
