#pragma once

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

/// Readable by the group of whoever writes it and by nobody else: it holds the router's secret.
inline constexpr FileOwnership kNotificationConfigOwnership = {kServiceAccountOwner, std::nullopt, 0660};

/// Settings of the services, among them passwords of databases, are merged into the preferences.
inline constexpr FileOwnership kBundleConfigOwnership = {std::nullopt, std::nullopt, 0600};

}  // namespace tessard
