#pragma once

#include "config/ServiceAccount.h"

namespace tessard {

inline constexpr const char* kJabberConfigDirectory = "/private/etc/jabberd_notification";
inline constexpr const char* kJabberRunDirectory = "/private/var/run/jabberd_notification";
inline constexpr const char* kJabberDefaultDatabasePath =
    "/private/var/jabberd/sqlite/jabberd2_notification.db";
inline constexpr const char* kJabberDatabaseScript = "/private/var/jabberd/db-setup.sqlite";
inline constexpr const char* kJabberLabel = "org.jabber.jabberd_notification";
inline constexpr const char* kPassPhraseTool = "/usr/sbin/keywarden";
inline constexpr const char* kNetstatTool = "/usr/sbin/netstat";
inline constexpr const char* kPluginBundleIdentifier = "com.velto.tessard_notification";

// The service account owns all that the jabberd processes read and write. Administrators read saved chats,
// daemons the run directory.
inline constexpr unsigned kJabberUserID = kServiceAccountOwner;
inline constexpr unsigned kJabberGroupID = 84;
inline constexpr unsigned kSavedChatsGroupID = 80;
inline constexpr unsigned kRunDirectoryGroupID = 1;

inline constexpr unsigned kSavedChatsPermissions = 0750;
inline constexpr unsigned kRunDirectoryPermissions = 0755;
inline constexpr unsigned kDatabaseDirectoryPermissions = 0750;
inline constexpr unsigned kDatabasePermissions = 0640;

}  // namespace tessard
