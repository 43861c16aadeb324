#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "atoms/ServiceOwner.h"
#include "common/Log.h"
#include "common/NetworkChangeContext.h"
#include "common/Platform.h"
#include "common/ServiceTypes.h"

namespace tessard {

class NOTIFICATION_PLUGIN_ComponentConfiguration;

/// One managed service. The coordinator speaks to services only through the operations of this class; each
/// has a harmless answer here, so that a subclass overrides only what its service needs. An atom keeps no
/// state beyond its name and owner and what unchanged files hold: every answer is computed afresh. Used on
/// the thread that carries the host's requests.
class NOTIFICATION_PLUGIN_ChatServiceAtom : public Object {
 public:
  explicit NOTIFICATION_PLUGIN_ChatServiceAtom(Platform& platform);
  ~NOTIFICATION_PLUGIN_ChatServiceAtom() override;

  /// Second step of construction. The owner is borrowed and outlives the atom.
  void initWithName_owner(std::string name, ServiceOwner* owner);

  const std::string& serviceName() const { return serviceName_; }
  void setServiceName(std::string name) { serviceName_ = std::move(name); }
  ServiceOwner* serviceOwner() const { return serviceOwner_; }
  void setServiceOwner(ServiceOwner* owner) { serviceOwner_ = owner; }

  /// The owner's master configuration, and its first component of this service's name. Null when absent.
  NOTIFICATION_PLUGIN_MasterConfiguration* masterConfig() const;
  NOTIFICATION_PLUGIN_ComponentConfiguration* componentConfig() const;

  /// Whether the service's files, databases and directories exist. Here: true.
  virtual bool serviceDataReady();
  /// Makes what is missing; false when that fails. Here: true.
  virtual bool initServiceData();
  /// Log identifiers and the paths of their files. Here: absent.
  virtual std::optional<Dictionary> getServiceLogPaths();
  /// Housekeeping of logs when the host is idle. Here: true.
  virtual bool archiveServiceLogs();
  /// The service's settings. Here: absent.
  virtual std::optional<SettingsDictionary> readServiceConfiguration();
  /// Takes over settings (null: none were given). False with a code in `error` when they could not be;
  /// `error` is 0 otherwise. Here: true with 0.
  virtual bool writeServiceConfiguration_error(const SettingsDictionary* settings, int& error);
  /// A `ServiceState`; for the unknown state errno tells why when it is not 0. Here: unknown.
  virtual int getServiceState();
  /// Starts (`ServiceStateRunning`) or stops (any other value) the service. Here: true.
  virtual bool setServiceState(int state);
  virtual std::optional<std::string> getServiceFirstDomain();
  virtual std::optional<std::vector<std::string>> getServiceDomains();
  /// Counters of connections. Here: absent.
  virtual std::optional<Dictionary> getServiceConnectedUsers();
  virtual std::optional<std::vector<std::string>> getServiceConnectedUserNames();
  /// The client services that are configured; absent where a service has no such list. Here: absent.
  virtual std::optional<Array> getConfiguredServices();
  /// Change that list as a request asks and answer what became of it. Here: absent.
  virtual std::optional<Dictionary> addServiceWithRequest(const Dictionary& request);
  virtual std::optional<Dictionary> removeServiceWithRequest(const Dictionary& request);
  /// What a client service needs to use this one; absent where there is nothing to tell. Here: absent.
  virtual std::optional<Dictionary> getServiceUserWithRequest(const Dictionary& request);
  /// Chooses the certificate that the push bridge shows. Here: absent.
  virtual std::optional<Dictionary> setKorvsCertificateWithRequest(const Dictionary& request);
  /// Called between loading and saving all configurations after a change of address or name. Here: nothing.
  virtual void handleChangeIPRequest(const NetworkChangeContext& context);
  virtual void handleNetworkChanged(const NetworkChangeContext& context);

  /// The last IPv4 address in the list of the host's addresses; absent when it has none.
  std::optional<std::string> currentIPv4AddressForHost(std::string_view host) const;

  /// 1 when the pid file names a running process, else 0.
  int getProcessStateForPidFile(std::string_view path) const;
  /// 1 when a process of the name runs, 0 when none does, -1 when that cannot be told.
  int getProcessStateForName(std::string_view name) const;
  /// The same answer; adds the bits of the mask to the flags when the process runs.
  int getProcessStateFlagsForName_stateMask_outState(std::string_view name, unsigned stateMask,
                                                     unsigned& outState) const;

  /// Polls `getServiceState` until it gives the state. False when it does not within `maxWait` seconds. The
  /// pause between two polls, `waitSleep`, is in microseconds.
  bool waitForServiceState_maxWait_waitSleep(int state, double maxWait, std::uint32_t waitSleep);

 protected:
  Platform& platform() const { return platform_; }

  /// The owner and the master configuration, for use without a look whether they are there: an atom without
  /// them speaks to an owner that has nothing and to a configuration that finds and changes nothing.
  ServiceOwner& owner() const { return serviceOwner_ ? *serviceOwner_ : *noOwner_; }
  NOTIFICATION_PLUGIN_MasterConfiguration& config() const;

 private:
  Platform& platform_;
  std::unique_ptr<ServiceOwner> noOwner_;
  std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> noConfiguration_;
  std::string serviceName_;
  ServiceOwner* serviceOwner_ = nullptr;
};

}  // namespace tessard
