#pragma once

#include <memory>
#include <mutex>

#include "atoms/ChatServiceAtom.h"
#include "atoms/X509Name.h"
#include "common/DurableReplace.h"
#include "common/Keychain.h"
#include "common/PropertyListFiles.h"
#include "common/Result.h"

namespace tessard {

struct NotificationDatabase;

/// The publish-subscribe service and its push bridge. Service name "Notification".
class NOTIFICATION_PLUGIN_NotificationServiceAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  using NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom;
  ~NOTIFICATION_PLUGIN_NotificationServiceAtom() override;

  /// A new atom for the owner, which is borrowed and outlives it.
  static std::unique_ptr<NOTIFICATION_PLUGIN_NotificationServiceAtom> notificationServiceAtom(
      Platform& platform, ServiceOwner* owner);

  /// Clears the lock and the cache. Runs once, at the end of the atom's life.
  void dealloc();

  /// Held while the settings file is read and rewritten. There is none unless one is set: the plug-in has one
  /// thread.
  std::mutex* settingsDictLock() const { return settingsDictLock_.get(); }
  void setSettingsDictLock(std::unique_ptr<std::mutex> lock) { settingsDictLock_ = std::move(lock); }
  /// Nothing is kept here: what hosts resolve to is remembered for one request only.
  const std::optional<Dictionary>& hostCache() const { return hostCache_; }
  void setHostCache(std::optional<Dictionary> cache) { hostCache_ = std::move(cache); }

  /// Whether every directory, database and file of the service exists, and its account where it has one. An
  /// empty file is no database. Makes the settings file where there is none.
  bool serviceDataReady() override;
  /// Makes what is missing. What cannot be made is an error line and does not end the work, so that only
  /// `serviceDataReady` tells whether all is there; false when the service's name ("jid") or the host's is
  /// not known or the settings cannot be brought up to date. Symbolic links in the places of data are
  /// refused.
  bool initServiceData() override;

  /// The settings file over the defaults, the served domain and the router's secret. Written back when it has
  /// another number of keys then; an unreadable file becomes the ".bak" of the new one. Absent when no domain
  /// can be determined.
  std::optional<SettingsDictionary> dictionaryFromSettingsFile();
  /// The same and "configuredServices", an empty dictionary when there is no list.
  std::optional<SettingsDictionary> readServiceConfiguration() override;
  /// Takes over the first host and the settings that are this service's; others are left out. False without
  /// settings. A file that cannot be written only logs.
  bool writeServiceConfiguration_error(const SettingsDictionary* settings, int& error) override;
  /// One setting of a write: stored when it is this service's. A null value is skipped.
  void writeValue_forKey_inSettings(const Value* value, const std::string& key, SettingsDictionary& settings);
  /// "JABBER_LOG" and "PUBSUB_ERROR_LOG".
  std::optional<Dictionary> getServiceLogPaths() override;
  /// False: this service archives nothing.
  bool archiveServiceLogs() override;
  /// Running when the process of the pid file is.
  int getServiceState() override;
  /// Starts the service and then, when it is switched on, the bridge; stops the bridge and then the service.
  /// Only the service's own change can fail.
  bool setServiceState(int state) override;
  void handleNetworkChanged(const NetworkChangeContext& context) override;
  /// Removes the databases when the host has changed.
  void handleChangeIPRequest(const NetworkChangeContext& context) override;

  /// The list of the bundle configuration file; empty when there is none.
  std::optional<Array> getConfiguredServices() override;
  /// Adds the request, without its "command", unless an equal entry is there. {"configuredServices"}: the
  /// list as it is to be. Where the file cannot be read, or made with the defaults of the preferences, it
  /// stays as it is and the list is empty; that and a failed write are error lines.
  std::optional<Dictionary> addServiceWithRequest(const Dictionary& request) override;
  /// Removes the entries with the "service" and the host ("hostName", whatever it is called) of the request.
  /// Answer and failures like those of adding.
  std::optional<Dictionary> removeServiceWithRequest(const Dictionary& request) override;

  /// The account for client services, made when the keychain has no password of it: "userName", "password",
  /// "xmppHostName", "JID", "jabberdClientPortTLS", "jabberdS2SPort" and, where the bridge is on and the
  /// asking "service" has a topic, "korpsTopic" and "subscriptionURL", up to the first of them that is not
  /// known. Absent when no domain is known. What cannot be made is an error line; a password that could not
  /// be set is answered and not kept.
  std::optional<Dictionary> getServiceUserWithRequest(const Dictionary& request) override;
  /// 16 letters and digits; absent when the device for random numbers cannot be read.
  std::optional<std::string> generateRandomPassword();
  /// Replaces the password of the account in the keychain, whatever its label, or adds it, to be used by root
  /// alone. A failure is an error line.
  void storePasswordInKeychain_account_label(const std::string& password, const std::string& account,
                                             const std::string& label);
  /// Lets processes of one user, and no others, do everything with an item.
  static SecAccess makeUidAccess(std::uint32_t userID);
  /// Makes the system's the preferred keychain. Absent where it does not give the password as text; why is an
  /// error line unless there is none.
  std::optional<std::string> serviceUserPasswordFromKeychain();
  /// Adds the account for client services to the group of those who may use all services or, where that is
  /// not there, of those who may chat. Nothing without the account or either group.
  void checkChatAccessForServiceUser();

  /// Makes the identity with the certificate whose subject contains "certificateName" the one that the bridge
  /// serves HTTPS with, and switches "enableHTTPS" on; {"certificateName"}. Without a name, or with an empty
  /// one, clears the choice, switches it off and answers nothing; so does every failure, with an error line.
  std::optional<Dictionary> setKorvsCertificateWithRequest(const Dictionary& request) override;
  /// The push topic of "calendar", "addressbook" or "mail": the first one in the subject of the certificate
  /// that was chosen for it. Absent, with a line that says why, when there is none.
  std::optional<std::string> getKorpsTopicForService(const std::optional<std::string>& serviceName);
  /// The topic in a parsed certificate name: of each part the first that is a text, of those the last. One
  /// that is none is told on standard error.
  std::optional<std::string> otherNameForX509Name(const X509Name& name);

  /// Puts the host name and the router's secret into an existing settings file. True when it was rewritten.
  bool updateConfigFile(const std::optional<std::string>& host);
  void logConfigCreationError(const std::string& reason);
  bool configNotModified(const SystemError& reason);
  /// The router's component secret, from the configuration on disk.
  std::optional<std::string> getSecret();

 private:
  static bool connectsAsClient(const SettingsDictionary& settings);
  bool isLink(const std::string& path);
  bool refusesLink(const std::string& path);
  bool makeDataDirectory(const std::string& path, const FileOwnership& ownership);
  void makeDatabase(const NotificationDatabase& database);
  void tellDatabaseNotMade(const std::string& path, const std::string& reason);
  void databaseNotMade(const std::string& path, const std::string& reason);
  bool isUnfinishedDatabase(const std::string& path);
  static Result<std::string> freeUniqueID(DirectoryNode& node);
  static Result<DirectoryRecord> createUser(DirectoryNode& node, const std::string& name,
                                            const char* fullName);
  void prepareComponentAccount(const std::string& account, SettingsDictionary& settings);
  void giveComponentPassword(DirectoryNode& node, const std::string& account,
                             const std::optional<std::string>& password, SettingsDictionary& settings);
  void componentPasswordNotSet(const SystemError& reason);
  std::optional<std::string> makeServiceUser();
  void addPrivilegedUser(SettingsDictionary& settings);
  void logAccountProblem(const std::string& what, const SystemError& reason);
  void saveSettings(const SettingsDictionary& settings);
  std::unique_lock<std::mutex> lockSettings() const;
  Dictionary defaultSettings();
  std::optional<std::string> servedDomain(const char* warning);
  void keepSettings(const Result<Dictionary>& stored, const SettingsDictionary& merged);
  void updateHostFrom(const SettingsDictionary& settings);
  std::optional<Dictionary> bundleConfigurationToChange();
  void keepServices(Dictionary configuration, const Array& services);
  void removeService_ofHost(const std::string& service, const std::string& hostName, Array& services);
  void takeNewHostFrom(const NetworkChangeContext& context);
  Result<void> writeConfigFile(const Dictionary& settings);
  bool setConfigFileAttributes();
  static std::string notSaved(const SystemError& reason);
  std::optional<KeychainIdentity> identityWhoseSubjectContains(const std::string& name);
  bool preferIdentity(const std::optional<KeychainIdentity>& identity);
  void keepHttps(bool enabled);
  std::optional<std::string> topicOfCertificate(const KeychainCertificate& certificate,
                                                const char* identityName);

  void writeFailed(const char* path, const SystemError& reason);

  std::unique_ptr<std::mutex> settingsDictLock_;
  std::optional<Dictionary> hostCache_;
  PropertyListFiles lists_{platform().files, platform().clock};
};

}  // namespace tessard
