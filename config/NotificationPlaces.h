#pragma once

#include <array>

#include "common/FileSystem.h"
#include "config/ServiceAccount.h"

namespace tessard {

/// The settings of the notification service, and the plug-in's preferences. Property lists.
inline constexpr const char* kNotificationSettingsFile = "/Library/Preferences/com.velto.Beaconry.plist";
inline constexpr const char* kPluginPreferencesFile =
    "/Library/Preferences/com.velto.tessard_notification.plist";

inline constexpr const char* kKorvBridgeLabel = "com.velto.KorvBridge";
inline constexpr const char* kNotificationLaunchdLabel = "com.velto.Beaconry";
inline constexpr const char* kNotificationPidFilePath = "/var/run/Beaconry.pid";

/// What the service keeps its data in, in the order in which it is made.
struct NotificationDatabase {
  const char* path;
  const char* script;  ///< of its tables
};
inline constexpr const char* kNotificationDataDirectory = "/var/db/idavoll";
inline constexpr std::array<NotificationDatabase, 2> kNotificationDatabases = {{
    {"/var/db/idavoll/pubsub.db", "/usr/share/Beaconry/pubsub.sql"},
    {"/var/db/idavoll/items.db", "/usr/share/Beaconry/items.sql"},
}};
inline constexpr const char* kKorvBridgeDirectory = "/var/db/korvbridge";
inline constexpr const char* kNotificationLogDirectory = "/var/log/idavoll";
inline constexpr FileOwnership kNotificationDataOwnership = {kServiceAccountOwner, std::nullopt, 0750};
inline constexpr FileOwnership kNotificationLogOwnership = {kServiceAccountOwner, std::nullopt, std::nullopt};

/// The account that client services log in with.
inline constexpr const char* kServiceUserName = "com.velto.notificationuser";

/// Readable by the group of whoever writes it and by nobody else: it holds the router's secret.
inline constexpr FileOwnership kNotificationConfigOwnership = {kServiceAccountOwner, std::nullopt, 0660};

/// Settings of the services, among them passwords of databases, are merged into the preferences.
inline constexpr FileOwnership kBundleConfigOwnership = {std::nullopt, std::nullopt, 0600};

}  // namespace tessard
