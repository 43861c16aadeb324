#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "atoms/ChatServiceAtom.h"

namespace tessard {

/// The private jabberd2 instance: router, session managers, c2s and s2s. Service name "jabberd".
class NOTIFICATION_PLUGIN_JabberServiceAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  using NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom;

  /// A new atom for the owner, which is borrowed and outlives it.
  static std::unique_ptr<NOTIFICATION_PLUGIN_JabberServiceAtom> jabberServiceAtom(Platform& platform,
                                                                                  ServiceOwner* owner);

  bool serviceDataReady() override;
  bool initServiceData() override;
  std::optional<Dictionary> getServiceLogPaths() override;
  /// False: this service archives nothing.
  bool archiveServiceLogs() override;
  std::optional<SettingsDictionary> readServiceConfiguration() override;
  /// False with `kSavedChatsDirectoryUnusable` when the saved-chats directory cannot be made usable, and with
  /// 0 when the list of hosts is there but empty. Changes the documents in memory only; the preferences file
  /// is written last.
  bool writeServiceConfiguration_error(const SettingsDictionary* settings, int& error) override;
  int getServiceState() override;
  bool setServiceState(int state) override;
  /// The live domains of the client component, else the preference "hosts"; absent when that is missing too.
  std::optional<std::vector<std::string>> getServiceDomains() override;
  /// "connUsersTotal", "connUsersPort1" and "connUsersPort2".
  std::optional<Dictionary> getServiceConnectedUsers() override;
  void handleChangeIPRequest(const NetworkChangeContext& context) override;
  void handleNetworkChanged(const NetworkChangeContext& context) override;

  /// The allowed server-to-server domains, else the preference "s2sAllowedDomains".
  std::optional<std::vector<std::string>> getS2SAllowedDomains();

  /// Switches the key file of client and server connections; the empty path means none.
  void setSSLKeyFilePath(const std::string& path);
  /// Puts the TLS attributes on every client domain, or takes them away when there is no key file.
  void setSSLEnableForKeyFilePath_withCAChainFile(const std::optional<std::string>& keyFile,
                                                  const std::optional<std::string>& chainFile);
  /// The pass phrase of a key file; absent when it has none or the keychain's program fails.
  std::optional<std::string> getPrivateKeyPasswordForKeyFile(const std::optional<std::string>& path);

  /// Fills the host name and one new router password into the five templates.
  bool initializeServiceConfigurations();
  /// 15 characters.
  std::string newRandomPassword();

  /// Makes a directory and its missing parents; a directory that is there already is left as it is.
  bool createDirectory_ownerID_groupID_permissions(const std::string& path, unsigned ownerID,
                                                   unsigned groupID, unsigned permissions);
  bool directoryHasAttributes_ownerID_groupID_permissions(const std::string& path, unsigned ownerID,
                                                          unsigned groupID, unsigned permissions);
  /// Makes the directory if nothing is there; true when the owner may write in it then. An existing directory
  /// is not changed. An absent path gives false.
  bool configureDirectory_ownerID_groupID_permissions(const std::optional<std::string>& path,
                                                      unsigned ownerID, unsigned groupID,
                                                      unsigned permissions);
  bool userHasDirectoryWriteAccess_userID(const std::optional<std::string>& path, unsigned userID);
  bool createServicePidDirectory();
  std::string determineDatabasePath();
  /// Makes the jabberd database unless a file is there. When it fails, no database is left behind.
  bool createServiceDatabase(const std::string& path);

 private:
  void setHostDomains(const std::vector<std::string>& domains);
  void setCAFilePath(const std::string& path);
  void setAuthLevel(const std::string& level);
  void writeSwitchesAndPorts(const SettingsDictionary& settings);
  bool writeStorageSettings(const SettingsDictionary& settings, int& error);
  std::string authLevel();
  void readPreferenceSettings(const Dictionary& preferences, std::initializer_list<const char*> keys,
                              SettingsDictionary& settings);
  void readDomainSettings(const Dictionary& preferences, SettingsDictionary& settings);
  std::optional<std::string> stringAt(const std::string& path);
  std::string liveStringAt(const std::string& path);
  void readSwitch(const char* key, const std::string& path, SettingsDictionary& settings);
  std::optional<std::vector<std::string>> liveValuesAt(const std::string& path, const char* preferenceKey,
                                                       const Dictionary& preferences);
  Result<void> makeDirectory(const std::string& path, const FileOwnership& ownership);
  bool isDirectory(const std::string& path);
  Result<void> ensureDatabaseDirectory(const std::string& path);
  void databaseCreationFailed(std::string_view output, std::string_view error);

  /// The answers that the pass phrase tool gave to the write that is going on, by key file. Null between
  /// writes.
  std::map<std::string, std::optional<std::string>>* passPhrases_ = nullptr;
};

}  // namespace tessard
