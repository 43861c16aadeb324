#include "atoms/NotificationPaths.h"

namespace tessard {

extern "C" {
const char* const kNotificationConfigFilePath = "/Library/Preferences/com.velto.Beaconry.plist";
const char* const kNotificationDefaultConfigFilePath =
    "/usr/share/tessardd/bundles/tessard_notification.bundle/Contents/Resources/defaultConfig.plist";
const char* const kBundleConfigFilePath = "/Library/Preferences/com.velto.tessard_notification.plist";
const char* const kKorvBridgeLaunchdLabel = "com.velto.KorvBridge";
}

}  // namespace tessard
