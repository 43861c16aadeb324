#pragma once

namespace tessard {

inline constexpr const char* kJabberConfigDirectory = "/private/etc/jabberd_notification";
inline constexpr const char* kJabberRunDirectory = "/private/var/run/jabberd_notification";
inline constexpr const char* kJabberDefaultDatabasePath =
    "/private/var/jabberd/sqlite/jabberd2_notification.db";
inline constexpr const char* kJabberDatabaseScript = "/private/var/jabberd/db-setup.sqlite";
inline constexpr const char* kJabberLabel = "org.jabber.jabberd_notification";
inline constexpr const char* kDatabaseTool = "/usr/bin/sqlite3";
inline constexpr const char* kPassPhraseTool = "/usr/sbin/keywarden";
inline constexpr const char* kNetstatTool = "/usr/sbin/netstat";
inline constexpr const char* kPluginBundleIdentifier = "com.velto.tessard_notification";

// The account that the jabberd components run as.
inline constexpr unsigned kJabberUserID = 84;
inline constexpr unsigned kJabberGroupID = 84;
// Administrators read saved chats, daemons the run directory; component files are nobody's but the account's.
inline constexpr unsigned kSavedChatsGroupID = 80;
inline constexpr unsigned kRunDirectoryGroupID = 1;
inline constexpr unsigned kComponentFileGroupID = 0;

inline constexpr unsigned kSavedChatsPermissions = 0750;
inline constexpr unsigned kRunDirectoryPermissions = 0755;
inline constexpr unsigned kDatabaseDirectoryPermissions = 0750;
inline constexpr unsigned kDatabasePermissions = 0640;
inline constexpr unsigned kComponentFilePermissions = 0600;

}  // namespace tessard
