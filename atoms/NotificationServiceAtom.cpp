#include "atoms/NotificationServiceAtom.h"

namespace tessard {

std::unique_ptr<NOTIFICATION_PLUGIN_NotificationServiceAtom>
NOTIFICATION_PLUGIN_NotificationServiceAtom::notificationServiceAtom(Platform& platform,
                                                                     ServiceOwner* owner) {
  auto atom = std::make_unique<NOTIFICATION_PLUGIN_NotificationServiceAtom>(platform);
  atom->initWithName_owner("Notification", owner);
  return atom;
}

}  // namespace tessard
