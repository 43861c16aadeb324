#include "atoms/NotificationPaths.h"

namespace tessard {

extern "C" {
const char* const kNotificationConfigFilePath = kNotificationSettingsFile;
const char* const kNotificationDefaultConfigFilePath =
    "/usr/share/tessardd/bundles/tessard_notification.bundle/Contents/Resources/defaultConfig.plist";
const char* const kBundleConfigFilePath = kPluginPreferencesFile;
const char* const kKorvBridgeLaunchdLabel = kKorvBridgeLabel;
}

}  // namespace tessard
