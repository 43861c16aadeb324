#pragma once

#include <memory>

#include "atoms/ChatServiceAtom.h"

namespace tessard {

/// The publish-subscribe service and its push bridge. Service name "Notification".
class NOTIFICATION_PLUGIN_NotificationServiceAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  using NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom;

  /// A new atom for the owner, which is borrowed and outlives it.
  static std::unique_ptr<NOTIFICATION_PLUGIN_NotificationServiceAtom> notificationServiceAtom(
      Platform& platform, ServiceOwner* owner);
};

}  // namespace tessard
