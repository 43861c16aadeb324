#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "atoms/ChatServiceAtom.h"
#include "atoms/ServiceOwner.h"
#include "common/DurableReplace.h"
#include "common/Log.h"
#include "common/NetworkChangeContext.h"
#include "common/Platform.h"
#include "common/PropertyListFiles.h"
#include "common/ServiceTypes.h"
#include "config/MasterConfiguration.h"

namespace tessard {

/// Coordinates the managed services: owns the master configuration, the ordered atoms and the plug-in's
/// preferences, fans every whole-system operation out over the atoms and merges their results. Every read and
/// write starts by loading the configuration from disk. Used on the thread that carries the host's requests.
class NOTIFICATION_PLUGIN_ChatServiceWrangler : public Object, public ServiceOwner {
 public:
  using Atoms = std::vector<std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceAtom>>;

  explicit NOTIFICATION_PLUGIN_ChatServiceWrangler(Platform& platform);

  /// A new coordinator, for the default master configuration or for the one at the path.
  static std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler> chatServiceWrangler(Platform& platform);
  static std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler> chatServiceWranglerWithConfigPath(
      Platform& platform, const std::string& path);

  /// Second step of construction; absent stands for the default path. Nothing is read yet.
  void initWithConfigPath(const std::optional<std::string>& path);

  NOTIFICATION_PLUGIN_MasterConfiguration* masterConfig() override { return masterConfig_.get(); }
  void setMasterConfig(std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> config);
  /// The managed services, in the order of every fan-out.
  const Atoms& serviceAtoms() const { return serviceAtoms_; }
  void setServiceAtoms(Atoms atoms) { serviceAtoms_ = std::move(atoms); }

  /// The first atom of the name, or null; all atoms of the name.
  NOTIFICATION_PLUGIN_ChatServiceAtom* serviceAtomForName(std::string_view name) const;
  std::vector<NOTIFICATION_PLUGIN_ChatServiceAtom*> serviceAtomsForName(std::string_view name) const;

  /// Makes the data of every service that lacks it, stopping at the first that cannot, then loads the
  /// configuration.
  bool initAllServiceData();
  bool serviceDataIsInitialized();

  /// The settings of all atoms, a later atom's value winning; absent when no atom gave any.
  std::optional<SettingsDictionary> readAllConfigurations();
  /// What keeps settings from being written, as a sentence; absent when there is nothing. Nothing is loaded
  /// or changed.
  std::optional<std::string> problemWithWriteSettings(const SettingsDictionary& settings);
  /// Writes settings (null: none were given) to all atoms and saves every changed file. When an atom refuses,
  /// its code is in `error`, the configuration is as last loaded and later atoms are not written. A list of
  /// hosts that is there but names none is refused before anything is changed. All files are written or none:
  /// when one cannot be, an error line tells, and every file and the configuration are as before. What was
  /// written can be undone.
  bool writeAllConfigurations_error(const SettingsDictionary* settings, int& error);

  /// The last write that succeeded and changed something: whether it can be undone, and its files.
  LastChange lastWrite() { return platform_.changes.lastChange(); }
  /// Undoes it, in a change that can be undone in turn. All files are put back or none, and the configuration
  /// is loaded anew.
  LastChange undoLastWrite();
  /// The settings as that would make them, with nothing changed; absent when there is nothing to undo.
  std::optional<SettingsDictionary> settingsBeforeLastWrite();

  /// Starts or stops the named services in order. The first failure stops all services (a failed stop so
  /// repeats itself, a few times at most) and gives `kFailedToStart` or `kFailedToStop`.
  int startStopServices_serviceAction(const std::vector<std::string>& names, int action);
  int startAllServices();
  int stopAllServices();

  bool archiveAllServiceLogs();
  std::optional<Dictionary> getAllServiceLogPaths();

  /// One dictionary of counters per atom of the name; an atom that gives none is left out.
  Array getConnectedUsersForService(std::string_view name);
  std::vector<std::string> getConnectedUserNamesForService(std::string_view name);
  /// Never absent here.
  std::optional<std::vector<std::string>> getDomainsForService(std::string_view name) override;

  bool doIdleTasks();

  // Preferences.
  /// Absent when no host name can be determined.
  std::optional<Dictionary> defaultPreferences();
  bool preferencesExist();
  std::optional<Dictionary> loadPreferences() override;
  bool savePreferences(const Dictionary& preferences) override;
  bool setPreferenceValue_forKey(const Value& value, const std::string& key);
  std::optional<Value> getPreferenceValueForKey(std::string_view key) override;

  /// A copy with the names under "hosts", "hostsCommaDelimitedString" and "s2sAllowedDomains" reduced to what
  /// names are made of, in lower case; absent when given none.
  std::optional<SettingsDictionary> filterWriteSettings(const SettingsDictionary* settings);

  // Host name and network changes.
  std::optional<std::string> currentHostDomain() override;
  void updateMasterConfigurationForNetworkChange(const NetworkChangeContext& context);
  void updateMasterConfigurationForChangeIP(const NetworkChangeContext& context);
  void handleNetworkChanged(const NetworkChangeContext& context);
  void handleChangeIPRequest(const NetworkChangeContext& context);

 private:
  const Dictionary* lookAtPreferences(std::optional<Dictionary>& seeded);
  std::string namePart(std::string_view text, std::string_view alsoKept);
  Array filteredNames(const Array& names);
  void cleanUpByStopping();
  void setHostDomainsFrom(const SettingsDictionary& settings);
  void replaceChangedDomain(const NetworkChangeContext& context);

  Platform& platform_;
  std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> masterConfig_;
  Atoms serviceAtoms_;
  int cleanUpDepth_ = 0;
  PropertyListFiles lists_;
};

}  // namespace tessard
