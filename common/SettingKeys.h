#pragma once

#include <array>
#include <string_view>

namespace tessard {

/// The settings that a request may write, in the order in which an administrator thinks of them: the XMPP
/// service, then the publish-subscribe service.
inline constexpr std::array<std::string_view, 38> kSettingKeys = {
    "hosts",
    "hostsCommaDelimitedString",
    "authLevel",
    "sslKeyFile",
    "sslCAFile",
    "jabberdClientPortTLS",
    "jabberdClientPortSSL",
    "jabberdS2SPort",
    "enableXMPP",
    "requireSecureS2S",
    "s2sRestrictDomains",
    "s2sAllowedDomains",
    "enableAutoBuddy",
    "enableSavedChats",
    "savedChatsLocation",
    "savedChatsArchiveInterval",
    "eventLogArchiveInterval",
    "logLevel",
    "jabberdDatabasePath",
    "initialized",
    "domain",
    "jid",
    "secret",
    "rhost",
    "rport",
    "connectAsClient",
    "privilegedUsers",
    "hide-nodes",
    "korvbridgeEnabled",
    "korvbridgePort",
    "backend",
    "dbname",
    "dbuser",
    "dbpass",
    "connectToCluster",
    "clusterHostname",
    "clusterNodes",
    "verbose",
};

}  // namespace tessard
