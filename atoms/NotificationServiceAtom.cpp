#include "atoms/NotificationServiceAtom.h"

namespace tessard {

std::unique_ptr<NOTIFICATION_PLUGIN_NotificationServiceAtom>
NOTIFICATION_PLUGIN_NotificationServiceAtom::notificationServiceAtom(Platform& platform,
                                                                     ServiceOwner* owner) {
  auto atom = std::make_unique<NOTIFICATION_PLUGIN_NotificationServiceAtom>(platform);
  atom->initWithName_owner("Notification", owner);
  return atom;
}

NOTIFICATION_PLUGIN_NotificationServiceAtom::~NOTIFICATION_PLUGIN_NotificationServiceAtom() {
  dealloc();
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::dealloc() {
  hostCache_.reset();
  settingsDictLock_.reset();
}

}  // namespace tessard
