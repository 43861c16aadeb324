#include "host/check/JabberdElements.h"

#include <algorithm>
#include <array>

// Found by asking the installed programs and their modules which names they know. "*" stands for whatever is
// below: modules take elements of their own there.

namespace tessard {

namespace {

constexpr auto kCommonElements = std::to_array<std::string_view>(
    {"id", "pidfile", "log.ident", "log.facility", "log.file", "stats.packet"});

constexpr auto kRouterLink = std::to_array<std::string_view>(
    {"router.ip", "router.port", "router.user", "router.pass", "router.pemfile",
     "router.private_key_password", "router.ciphers", "router.cachain", "router.retry.init",
     "router.retry.lost", "router.retry.sleep"});

constexpr auto kRouterElements = std::to_array<std::string_view>(
    {"local.ip", "local.port", "local.users", "local.secret", "local.pemfile", "local.private_key_password",
     "local.ciphers", "check.interval", "check.keepalive", "io.max_fds", "io.limits.bytes",
     "io.limits.connects", "io.access.order", "io.access.allow", "io.access.deny", "aliases.alias", "aci.*",
     "message_logging.enabled", "message_logging.file",
     // Read by the administration daemon alone.
     "message_logging_enabled", "message_logging_dir", "message_logging_roll_days",
     "filter_muc_messages_from"});

constexpr auto kSmElements = std::to_array<std::string_view>(
    {"local.id", "storage.path", "storage.driver", "storage.limits.queries", "storage.sqlite.dbname",
     "storage.sqlite.sql", "storage.sqlite.busy-timeout", "storage.sqlite.prefix",
     // Of the other databases alone, but it stands in every template.
     "storage.sqlite.transactions", "storage.db.*", "storage.fs.*", "storage.mysql.*", "storage.pgsql.*",
     "storage.ldapvcard.*", "aci.*", "modules.*", "discovery.*", "user.*", "amp.*", "offline.*",
     "roster.maxitems",
     // Read by the administration daemon alone.
     "velto_notification_component_addr"});

constexpr auto kC2sElements = std::to_array<std::string_view>(
    {"local.id", "local.ip", "local.port", "local.ssl-port", "local.pemfile", "local.private_key_password",
     "local.cachain", "local.verify-mode", "local.ciphers", "local.httpforward", "io.max_fds",
     "io.compression", "io.websocket", "io.limits.bytes", "io.limits.stanzas", "io.limits.connects",
     "io.limits.stanzasize", "io.access.order", "io.access.allow", "io.access.deny", "io.check.interval",
     "io.check.idle", "io.check.keepalive", "pbx.pipe", "stream_redirect.redirect",
     // With what each authentication module takes.
     "authreg.*"});

constexpr auto kS2sElements = std::to_array<std::string_view>({"router.non-default",
                                                               "local.id",
                                                               "local.ip",
                                                               "local.port",
                                                               "local.origins.ip",
                                                               "local.pemfile",
                                                               "local.private_key_password",
                                                               "local.cachain",
                                                               "local.verify-mode",
                                                               "local.ciphers",
                                                               "local.secret",
                                                               "io.max_fds",
                                                               "io.compression",
                                                               "io.limits.stanzasize",
                                                               "check.interval",
                                                               "check.queue",
                                                               "check.retry",
                                                               "check.idle",
                                                               "check.keepalive",
                                                               "check.dnscache",
                                                               "lookup.*",
                                                               "out-conn-reuse",
                                                               "security.require_tls",
                                                               "security.enable_whitelist",
                                                               "security.whitelist_domain"});

constexpr auto kNeededByRouter = std::to_array<std::string_view>({"local.users", "local.secret"});
constexpr auto kNeededBySm = std::to_array<std::string_view>(
    {"router.ip", "router.user", "router.pass", "local.id", "storage.driver", "storage.sqlite.dbname"});
constexpr auto kNeededByC2s = std::to_array<std::string_view>(
    {"router.ip", "router.user", "router.pass", "local.id", "authreg.module", "local.port"});
constexpr auto kNeededByS2s =
    std::to_array<std::string_view>({"router.ip", "router.user", "router.pass", "local.port"});

// Whether the path is a known one, on the way to it, or below one that may hold anything.
bool isAmong(std::span<const std::string_view> known, std::string_view path) {
  return std::ranges::any_of(known, [path](std::string_view entry) {
    if (entry.ends_with(".*")) {
      entry.remove_suffix(2);
      if (path.starts_with(entry) && path.size() > entry.size() && path[entry.size()] == '.') return true;
    }
    return entry == path ||
           (entry.starts_with(path) && entry.size() > path.size() && entry[path.size()] == '.');
  });
}

}  // namespace

bool isElementRead(std::string_view kind, std::string_view path) {
  if (isAmong(kCommonElements, path)) return true;
  if (kind == "router") return isAmong(kRouterElements, path);
  if (isAmong(kRouterLink, path)) return true;
  if (kind == "sm") return isAmong(kSmElements, path);
  return kind == "c2s" ? isAmong(kC2sElements, path) : isAmong(kS2sElements, path);
}

std::span<const std::string_view> neededElements(std::string_view kind) {
  if (kind == "router") return kNeededByRouter;
  if (kind == "sm") return kNeededBySm;
  if (kind == "c2s") return kNeededByC2s;
  if (kind == "s2s") return kNeededByS2s;
  return {};
}

}  // namespace tessard
