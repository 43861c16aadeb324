#pragma once

#include "config/NotificationPlaces.h"

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

}  // namespace tessard
