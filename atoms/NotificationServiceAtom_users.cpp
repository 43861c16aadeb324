#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <utility>

#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"

namespace tessard {

namespace {

constexpr const char* kServiceUserFullName = "Notification User";
constexpr const char* kComponentFullName = "PubSub User";
constexpr const char* kKeychainLabel = "com.velto.tessard_notification";

constexpr const char* kPrimaryGroupID = "20";
constexpr const char* kUserShell = "/usr/bin/false";
// A number and no path: nobody is ever at home here.
constexpr const char* kHomeDirectory = "99";
constexpr std::int64_t kFirstUniqueID = 250;

constexpr std::size_t kPasswordLength = 16;
// Its last character is never reached.
constexpr std::string_view kPasswordAlphabet =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ01234567890";
constexpr std::size_t kReachedCharacters = 62;
static_assert(kPasswordAlphabet.size() == kReachedCharacters + 1);

Array oneValue(std::string value) {
  return {Value(std::move(value))};
}

/// The keys with their values up to the first absent one.
Dictionary dictionaryOf(std::initializer_list<std::pair<std::optional<Value>, const char*>> pairs) {
  Dictionary dictionary;
  for (const auto& [value, key] : pairs) {
    if (!value) break;
    dictionary.set(key, *value);
  }
  return dictionary;
}

std::optional<Value> valueOf(const std::optional<std::string>& text) {
  return text ? std::optional<Value>(*text) : std::nullopt;
}

const char* adviceFor(const SystemError& error) {
  switch (error.code()) {
    case EPERM:
    case EACCES:
      return "; the daemon must run as root";
    case EBUSY:
      return "; try again when the other program has ended";
    case EINVAL:
      return "; change the \"jid\" in the notification settings";
    default:
      return "";
  }
}

Result<DirectoryRecord> noRandomNumbers() {
  return SystemError(EIO, "/dev/random cannot be read");
}

Result<void> setPassword(DirectoryNode& node, const Result<DirectoryRecord>& record,
                         const std::optional<std::string>& password) {
  if (!record) return record.error();
  if (!password) return noRandomNumbers().error();
  return node.changePassword_toPassword(record.value(), *password);
}

}  // namespace

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::generateRandomPassword() {
  const auto bytes = platform().random.readDevRandom(kPasswordLength + 1);
  if (!bytes) return std::nullopt;
  std::string password;
  for (const char byte : *bytes) {
    password += kPasswordAlphabet[static_cast<unsigned char>(byte) % kReachedCharacters];
  }
  password.resize(std::min(password.size(), kPasswordLength));
  return password;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::logAccountProblem(const std::string& what,
                                                                    const SystemError& reason) {
  logError_source(fill("%@: %@%@", {what, reason.description(), adviceFor(reason)}), "");
}

Result<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::freeUniqueID(DirectoryNode& node) {
  for (std::int64_t candidate = kFirstUniqueID;; ++candidate) {
    std::string id = std::to_string(candidate);
    const auto taken = node.recordsMatching(kODRecordTypeUsers, kODAttributeTypeUniqueID, id, 1);
    if (!taken) return taken.error();
    if (taken.value().empty()) return id;
  }
}

Result<DirectoryRecord> NOTIFICATION_PLUGIN_NotificationServiceAtom::createUser(DirectoryNode& node,
                                                                                const std::string& name,
                                                                                const char* fullName) {
  const auto id = freeUniqueID(node);
  if (!id) return id.error();
  return node.createRecordWithRecordType_name_attributes(
      kODRecordTypeUsers, name,
      {{kODAttributeTypeUniqueID, oneValue(id.value())},
       {kODAttributeTypeFullName, oneValue(fullName)},
       {kODAttributeTypePrimaryGroupID, oneValue(kPrimaryGroupID)},
       {kODAttributeTypeUserShell, oneValue(kUserShell)},
       {kODAttributeTypeNFSHomeDirectory, oneValue(kHomeDirectory)}});
}

// The account's name may be anything that somebody wrote into the settings; no line repeats it.
void NOTIFICATION_PLUGIN_NotificationServiceAtom::prepareComponentAccount(const std::string& account,
                                                                          SettingsDictionary& settings) {
  const auto opened = platform().directory.nodeWithType(kODNodeTypeLocalNodes);
  if (!connectsAsClient(settings)) return;
  if (!opened) {
    logAccountProblem("the accounts of this machine cannot be reached", opened.error());
    return;
  }
  DirectoryNode& node = *opened.value();
  const std::string* known = settings.stringFor("password");
  // Drawn first: an account that was left without a password would count as ready.
  const auto password = known ? *known : generateRandomPassword();
  const bool isNew = !platform().directory.getpwnam(account);
  if (isNew) {
    const auto created = password ? createUser(node, account, kComponentFullName) : noRandomNumbers();
    logError_source("Failed to create pubsub user", "");
    if (!created) {
      logAccountProblem("the account of the publish-subscribe component was not made", created.error());
    }
    // An account that is made again gets the password that the component has.
    const auto set = created && known ? setPassword(node, created, password) : Result<void>();
    if (!set) componentPasswordNotSet(set.error());
  }
  if (!settings.contains("password")) giveComponentPassword(node, account, password, settings);
}

// A password that the account does not have must not be kept: nobody would try again.
void NOTIFICATION_PLUGIN_NotificationServiceAtom::giveComponentPassword(
    DirectoryNode& node, const std::string& account, const std::optional<std::string>& password,
    SettingsDictionary& settings) {
  const auto record = node.recordWithRecordType_name(kODRecordTypeUsers, account);
  logError_source("Couldn't find pubsub user", "");
  const auto set = setPassword(node, record, password);
  logError_source("Failed to set pubsub user password", "");
  if (set) {
    settings.set("password", *password);
    saveSettings(settings);
    // The account has it already.
    platform().changes.keep();
  } else if (platform().directory.getpwnam(account)) {
    componentPasswordNotSet(set.error());
  }
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::componentPasswordNotSet(const SystemError& reason) {
  logError_source(fill("the account of the publish-subscribe component was given no password: %@; remove the "
                       "account, and it is made again",
                       {reason.description()}),
                  "");
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::getServiceUserWithRequest(
    const Dictionary& request) {
  const auto domain = servedDomain("Unable to determine jabber domain for getServiceUserWithRequest");
  if (!domain) return std::nullopt;
  auto settings = dictionaryFromSettingsFile();
  auto password = serviceUserPasswordFromKeychain();
  if (!password) password = makeServiceUser();
  if (settings) addPrivilegedUser(*settings);
  checkChatAccessForServiceUser();
  const auto merged = readServiceConfiguration();
  const auto isOn = [&](const char* key) {
    const Value* value = merged ? merged->find(key) : nullptr;
    return value && value->boolValue();
  };
  std::optional<std::string> topic;
  if (isOn("korvbridgeEnabled")) {
    const Value* service = request.find("service");
    topic = getKorpsTopicForService(service ? service->stringValue() : std::nullopt);
  }
  std::optional<Value> subscriptionURL;
  if (topic) {
    subscriptionURL = fill("http%@://%@:%@/subscription",
                           {isOn("enableHTTPS") ? "s" : "", *domain, merged->find("korvbridgePort")});
  }
  return dictionaryOf({{kServiceUserName, "userName"},
                       {valueOf(password), "password"},
                       {*domain, "xmppHostName"},
                       {fill("%@@%@", {kServiceUserName, *domain}), "JID"},
                       {owner().getPreferenceValueForKey("jabberdClientPortTLS"), "jabberdClientPortTLS"},
                       {owner().getPreferenceValueForKey("jabberdS2SPort"), "jabberdS2SPort"},
                       {valueOf(topic), "korpsTopic"},
                       {subscriptionURL, "subscriptionURL"}});
}

// The password goes to the keychain once the account has it: what is there is never tried out again.
std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::makeServiceUser() {
  auto password = generateRandomPassword();
  const auto opened = platform().directory.nodeWithType(kODNodeTypeLocalNodes);
  if (!opened) {
    logAccountProblem("the accounts of this machine cannot be reached", opened.error());
    return password;
  }
  DirectoryNode& node = *opened.value();
  if (!platform().directory.getpwnam(kServiceUserName)) {
    const auto created = createUser(node, kServiceUserName, kServiceUserFullName);
    if (!created) {
      logError_source(fill("Failed to create user %@", {kServiceUserName}), "");
      logAccountProblem("the account of the client services was not made", created.error());
    }
  }
  const auto record = node.recordWithRecordType_name(kODRecordTypeUsers, kServiceUserName);
  if (!record) logError_source("Couldn't find pubsub user", "");
  const auto set = setPassword(node, record, password);
  if (!set) {
    logError_source("Failed to set pubsub user password", "");
    logAccountProblem("the account of the client services was given no password", set.error());
    return password;
  }
  storePasswordInKeychain_account_label(*password, kServiceUserName, kKeychainLabel);
  return password;
}

void NOTIFICATION_PLUGIN_NotificationServiceAtom::addPrivilegedUser(SettingsDictionary& settings) {
  const Array* stored = settings.arrayFor("privilegedUsers");
  Array users = stored ? *stored : Array{};
  if (std::ranges::find(users, Value(kServiceUserName)) != users.end()) return;
  users.emplace_back(kServiceUserName);
  settings.set("privilegedUsers", std::move(users));
  saveSettings(settings);
}

}  // namespace tessard
