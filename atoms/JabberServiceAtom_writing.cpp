#include "atoms/AuthenticationLevel.h"
#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"
#include "common/Text.h"
#include "common/Utf8.h"
#include "config/JabberPaths.h"
#include "config/MasterConfiguration.h"

namespace tessard {

namespace {

struct SettingPath {
  const char* key;
  const char* path;
};

constexpr SettingPath kPorts[] = {
    {"jabberdClientPortTLS", "c2s.local.port"},
    {"jabberdClientPortSSL", "c2s.local.ssl-port"},
    {"jabberdS2SPort", "s2s.local.port"},
};

constexpr SettingPath kS2SSwitches[] = {
    {"requireSecureS2S", "s2s.security.require_tls"},
    {"s2sRestrictDomains", "s2s.security.enable_whitelist"},
};

constexpr const char* kS2SPort = "5268";

// The list of hosts that the settings ask for: the comma-separated form wins over the array. Absent when
// neither is there.
std::optional<std::vector<std::string>> hostsIn(const SettingsDictionary& settings) {
  if (const std::string* joined = settings.stringFor("hostsCommaDelimitedString")) {
    return componentsOf(*joined, ',');
  }
  if (const Array* hosts = settings.arrayFor("hosts")) return stringsOf(*hosts);
  return std::nullopt;
}

// Keeps the form of the host list that did not come in, in step with the one that did.
void alignHostForms(const SettingsDictionary& incoming, const std::vector<std::string>& hosts,
                    SettingsDictionary& merged) {
  if (incoming.stringFor("hostsCommaDelimitedString")) {
    merged.set("hosts", arrayOf(hosts));
  } else {
    merged.set("hostsCommaDelimitedString", joinedWith(hosts, ","));
  }
}

std::optional<std::string> textFor(const SettingsDictionary& settings, std::string_view key) {
  const Value* value = settings.find(key);
  return value ? value->stringValue() : std::nullopt;
}

std::optional<std::string> nonEmpty(std::optional<std::string> text) {
  return text && text->empty() ? std::nullopt : std::move(text);
}

const char* digitFor(const Value& flag) {
  return flag.boolValue() ? "1" : "0";
}

using Atom = NOTIFICATION_PLUGIN_JabberServiceAtom;

}  // namespace

bool NOTIFICATION_PLUGIN_JabberServiceAtom::writeServiceConfiguration_error(
    const SettingsDictionary* settings, int& error) {
  error = kWriteSucceeded;
  std::map<std::string, std::optional<std::string>> passPhrases;
  passPhrases_ = &passPhrases;
  // Also when something throws.
  const std::unique_ptr<Atom, void (*)(Atom*)> untilTheEnd(this,
                                                           [](Atom* atom) { atom->passPhrases_ = nullptr; });
  const SettingsDictionary incoming = settings ? *settings : SettingsDictionary{};
  auto merged = readServiceConfiguration();
  if (!merged) return false;
  merged->updateWithDictionary(incoming);

  const auto hosts = hostsIn(incoming);
  if (hosts && hosts->empty()) {
    logError_source("the list of hosts is empty: nothing was changed", "");
    return false;
  }
  if (hosts) {
    setHostDomains(*hosts);
    alignHostForms(incoming, *hosts, *merged);
  }
  const auto chainFile = textFor(incoming, "sslCAFile");
  if (chainFile) setCAFilePath(*chainFile);
  const auto keyFile = textFor(incoming, "sslKeyFile");
  if (keyFile) setSSLKeyFilePath(*keyFile);
  if (hosts || keyFile) {
    setSSLEnableForKeyFilePath_withCAChainFile(nonEmpty(textFor(*merged, "sslKeyFile")), chainFile);
  }
  const auto level = textFor(incoming, "authLevel");
  logDebug_source(fill("authLevelVal = %@", {level}), "");
  if (level) setAuthLevel(*level);
  writeSwitchesAndPorts(incoming);
  if (!writeStorageSettings(incoming, error)) return false;
  owner().savePreferences(*merged);
  return true;
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::setHostDomains(const std::vector<std::string>& domains) {
  config().setStringValues_forPath(domains, "c2s.local.id");
  config().setStringValue_forPath(fill("pubsub.%@", {domains.front()}),
                                  "sm.velto_notification_component_addr");
  config().setStringValue_forPath(fill("rooms.%@", {domains.front()}), "router.filter_muc_messages_from");
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::setCAFilePath(const std::string& path) {
  logDebug_source(fill("set-xml: caFilePath = %@", {path}), "");
  for (const char* chain : {"c2s.local.cachain", "s2s.local.cachain"}) {
    config().setStringValue_forPath(path, chain);
    if (path.empty()) config().setNodeState_forPath(kNodeSwitchedOff, chain);
  }
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::setAuthLevel(const std::string& level) {
  const unsigned wanted = mechanismsForAuthLevel(level) | kAlwaysOffered;
  for (const Mechanism& mechanism : kMechanisms) {
    const bool live = (wanted & mechanism.bit) != 0;
    config().setNodeState_forPath(live ? kNodeLive : kNodeSwitchedOff, mechanism.path);
  }
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::writeSwitchesAndPorts(const SettingsDictionary& settings) {
  for (const SettingPath& port : kPorts) {
    if (const auto digits = textFor(settings, port.key)) {
      config().setStringValue_forPath(*digits, port.path);
    }
  }
  // After the port itself, so that the switch wins when both come in.
  if (const Value* enable = settings.find("enableXMPP")) {
    config().setStringValue_forPath(enable->boolValue() ? kS2SPort : "0", "s2s.local.port");
  }
  for (const SettingPath& flag : kS2SSwitches) {
    if (const Value* value = settings.find(flag.key)) {
      config().setStringValue_forPath(digitFor(*value), flag.path);
    }
  }
  if (const Array* allowed = settings.arrayFor("s2sAllowedDomains")) {
    config().setStringValues_forPath(stringsOf(*allowed), "s2s.security.whitelist_domain");
  }
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::writeStorageSettings(const SettingsDictionary& settings,
                                                                 int& error) {
  if (const auto database = textFor(settings, "jabberdDatabasePath")) {
    config().setStringValue_forPath(*database, "sm.storage.sqlite.dbname");
  }
  if (const Value* enable = settings.find("enableSavedChats")) {
    config().setStringValue_forPath(digitFor(*enable), "router.message_logging_enabled");
  }
  if (const auto location = textFor(settings, "savedChatsLocation")) {
    config().setStringValue_forPath(*location, "router.message_logging_dir");
    if (!configureDirectory_ownerID_groupID_permissions(location, kJabberUserID, kSavedChatsGroupID,
                                                        kSavedChatsPermissions)) {
      error = kSavedChatsDirectoryUnusable;
      return false;
    }
  }
  if (const auto days = textFor(settings, "savedChatsArchiveInterval")) {
    config().setStringValue_forPath(*days, "router.message_logging_roll_days");
  }
  return true;
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::setSSLKeyFilePath(const std::string& path) {
  if (path.empty()) {
    config().setNodeState_forPath(kNodeSwitchedOff, "c2s.local.pemfile");
    config().setNodeState_forPath(kNodeSwitchedOff, "s2s.local.pemfile");
  } else {
    if (!platform().files.exists(path)) {
      logWarning_source(fill("SSL PEM file does not exist: %@", {path}), "");
    }
    config().setStringValue_forPath(path, "c2s.local.pemfile");
    config().setStringValue_forPath(path, "s2s.local.pemfile");
    if (const auto passPhrase = getPrivateKeyPasswordForKeyFile(path)) {
      config().setStringValue_forPath(*passPhrase, "c2s.local.private_key_password");
      config().setStringValue_forPath(*passPhrase, "s2s.local.private_key_password");
      return;
    }
  }
  for (const char* password : {"c2s.local.private_key_password", "s2s.local.private_key_password"}) {
    config().setStringValue_forPath("", password);
    config().setNodeState_forPath(kNodeSwitchedOff, password);
  }
}

void NOTIFICATION_PLUGIN_JabberServiceAtom::setSSLEnableForKeyFilePath_withCAChainFile(
    const std::optional<std::string>& keyFile, const std::optional<std::string>& chainFile) {
  logDebug_source(fill("set-xml: start-tls = [%@]", {keyFile ? "ENABLED" : "DISABLED"}), "");
  const auto setOnEveryDomain = [this](const char* attribute, const std::optional<std::string>& value) {
    config().setAttributeValue_forKey_atPath_matchingAttributes(value, attribute, "c2s.local.id",
                                                                std::nullopt);
  };
  setOnEveryDomain("require-starttls", keyFile ? std::optional<std::string>("true") : std::nullopt);
  setOnEveryDomain("pemfile", keyFile);
  setOnEveryDomain("private-key-password", getPrivateKeyPasswordForKeyFile(keyFile));
  setOnEveryDomain("cachain", keyFile ? chainFile : std::nullopt);
}

std::optional<std::string> NOTIFICATION_PLUGIN_JabberServiceAtom::getPrivateKeyPasswordForKeyFile(
    const std::optional<std::string>& path) {
  if (!path || path->empty()) {
    logDebug_source("NULL keyFilePath requested", "");
    return std::nullopt;
  }
  if (passPhrases_ && passPhrases_->contains(*path)) return passPhrases_->at(*path);
  const TaskResult answer = platform().tasks.launch_task(
      kPassPhraseTool, {TaskArgument::text("--get-private-key-passphrase"), TaskArgument::path(*path)});
  if (answer.status != 0) {
    const auto reason = isUtf8(answer.errorText) ? std::optional(answer.errorText) : std::nullopt;
    logError_source(fill("keywarden error: %d - %@", {answer.status, reason}), "");
    return std::nullopt;
  }
  std::optional<std::string> passPhrase;
  if (!answer.output.empty() && isUtf8(answer.output)) passPhrase = trimmed(answer.output, "\r\n");
  if (passPhrases_) passPhrases_->emplace(*path, passPhrase);
  return passPhrase;
}

}  // namespace tessard
