#pragma once

#include <array>

#include "common/FileSystem.h"
#include "config/ServiceAccount.h"

namespace tessard {

// Exported by the bundle under these names.
extern "C" {
/// The settings of the notification service, and the values that they start with. Property lists.
extern const char* const kNotificationConfigFilePath;
extern const char* const kNotificationDefaultConfigFilePath;
/// The plug-in's preferences; also holds the client services that are configured, under "services".
extern const char* const kBundleConfigFilePath;
extern const char* const kKorvBridgeLaunchdLabel;
}

inline constexpr const char* kNotificationLaunchdLabel = "com.velto.Beaconry";
inline constexpr const char* kNotificationPidFilePath = "/var/run/Beaconry.pid";
inline constexpr std::array<const char*, 2> kNotificationDatabasePaths = {"/var/db/idavoll/pubsub.db",
                                                                          "/var/db/idavoll/items.db"};

/// Readable by the group of whoever writes it and by nobody else: it holds the router's secret.
inline constexpr FileOwnership kNotificationConfigOwnership = {kServiceAccountOwner, std::nullopt, 0660};

/// Settings of the services, among them passwords of databases, are merged into the preferences.
inline constexpr FileOwnership kBundleConfigOwnership = {std::nullopt, std::nullopt, 0600};

}  // namespace tessard
