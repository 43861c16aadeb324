#include "atoms/ChatServiceAtom.h"

#include <cerrno>

#include "common/Format.h"
#include "config/MasterConfiguration.h"

namespace tessard {

namespace {

constexpr double kAddressLookupSeconds = 5.0;

class NoOwner : public ServiceOwner {
 public:
  NOTIFICATION_PLUGIN_MasterConfiguration* masterConfig() override { return nullptr; }
  std::optional<std::string> currentHostDomain() override { return std::nullopt; }
  std::optional<std::vector<std::string>> getDomainsForService(std::string_view /*name*/) override {
    return std::nullopt;
  }
  std::optional<Dictionary> loadPreferences() override { return std::nullopt; }
  bool savePreferences(const Dictionary& /*preferences*/) override { return false; }
  std::optional<Value> getPreferenceValueForKey(std::string_view /*key*/) override { return std::nullopt; }
};

}  // namespace

NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom(Platform& platform)
    : Object(platform.log),
      platform_(platform),
      noOwner_(std::make_unique<NoOwner>()),
      noConfiguration_(std::make_unique<NOTIFICATION_PLUGIN_MasterConfiguration>(platform)) {}

NOTIFICATION_PLUGIN_ChatServiceAtom::~NOTIFICATION_PLUGIN_ChatServiceAtom() = default;

void NOTIFICATION_PLUGIN_ChatServiceAtom::initWithName_owner(std::string name, ServiceOwner* owner) {
  setServiceName(std::move(name));
  setServiceOwner(owner);
}

NOTIFICATION_PLUGIN_MasterConfiguration* NOTIFICATION_PLUGIN_ChatServiceAtom::masterConfig() const {
  return serviceOwner_ ? serviceOwner_->masterConfig() : nullptr;
}

NOTIFICATION_PLUGIN_ComponentConfiguration* NOTIFICATION_PLUGIN_ChatServiceAtom::componentConfig() const {
  auto* master = masterConfig();
  return master ? master->defaultComponentForName(serviceName_) : nullptr;
}

NOTIFICATION_PLUGIN_MasterConfiguration& NOTIFICATION_PLUGIN_ChatServiceAtom::config() const {
  auto* master = masterConfig();
  return master ? *master : *noConfiguration_;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::serviceDataReady() {
  return true;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::initServiceData() {
  return true;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceLogPaths() {
  return std::nullopt;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::archiveServiceLogs() {
  return true;
}

std::optional<SettingsDictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::readServiceConfiguration() {
  return std::nullopt;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::writeServiceConfiguration_error(
    const SettingsDictionary* /*settings*/, int& error) {
  error = kWriteSucceeded;
  return true;
}

int NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceState() {
  return ServiceStateUnknown;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::setServiceState(int /*state*/) {
  return true;
}

std::optional<std::string> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceFirstDomain() {
  return std::nullopt;
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceDomains() {
  return std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceConnectedUsers() {
  return std::nullopt;
}

std::optional<std::vector<std::string>> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceConnectedUserNames() {
  return std::nullopt;
}

std::optional<Array> NOTIFICATION_PLUGIN_ChatServiceAtom::getConfiguredServices() {
  return std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::addServiceWithRequest(
    const Dictionary& /*request*/) {
  return std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::removeServiceWithRequest(
    const Dictionary& /*request*/) {
  return std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::getServiceUserWithRequest(
    const Dictionary& /*request*/) {
  return std::nullopt;
}

std::optional<Dictionary> NOTIFICATION_PLUGIN_ChatServiceAtom::setKorvsCertificateWithRequest(
    const Dictionary& /*request*/) {
  return std::nullopt;
}

void NOTIFICATION_PLUGIN_ChatServiceAtom::handleChangeIPRequest(const NetworkChangeContext& /*context*/) {}

void NOTIFICATION_PLUGIN_ChatServiceAtom::handleNetworkChanged(const NetworkChangeContext& /*context*/) {}

std::optional<std::string> NOTIFICATION_PLUGIN_ChatServiceAtom::currentIPv4AddressForHost(
    std::string_view host) const {
  logDebug_source(fill("Scanning for IPv4 address for host: %@ ", {host}), "");
  std::optional<std::string> candidate;
  for (const std::string& address :
       platform_.network.ZtGetAddressesForHostName(host, kAddressLookupSeconds)) {
    logDebug_source(fill("...checking address: %@ ", {address}), "");
    if (address.find(':') == std::string::npos) candidate = address;
  }
  return candidate;
}

int NOTIFICATION_PLUGIN_ChatServiceAtom::getProcessStateForPidFile(std::string_view path) const {
  // The library's answer is a byte; what lies above it carries no meaning.
  constexpr unsigned kAnswerByte = 0xff;
  const int answer = platform_.processes.get_service_state_from_pid_file(path);
  return (static_cast<unsigned>(answer) & kAnswerByte) != 0 ? 1 : 0;
}

int NOTIFICATION_PLUGIN_ChatServiceAtom::getProcessStateForName(std::string_view name) const {
  std::int32_t count = 0;
  if (platform_.processes.ec_is_daemon_running(name, count) < 0) {
    const int error = errno;
    logError_source(
        fill("Unable to determine state of %@ process \"%@\" (error %d)", {serviceName_, name, error}), "");
    // For who asks next: a state that cannot be told comes with the system error number.
    errno = error;
    return -1;
  }
  return count > 0 ? 1 : 0;
}

int NOTIFICATION_PLUGIN_ChatServiceAtom::getProcessStateFlagsForName_stateMask_outState(
    std::string_view name, unsigned stateMask, unsigned& outState) const {
  const int state = getProcessStateForName(name);
  if (state > 0) outState |= stateMask;
  return state;
}

bool NOTIFICATION_PLUGIN_ChatServiceAtom::waitForServiceState_maxWait_waitSleep(int state, double maxWait,
                                                                                std::uint32_t waitSleep) {
  const bool starting = state == ServiceStateRunning;
  const char* change = starting ? "startup" : "shutdown";
  logNotice_source(fill("waiting for %@ to finish %@...", {serviceName_, change}), "");
  const double start = platform_.clock.monotonicSeconds();
  while (getServiceState() != state) {
    if (platform_.clock.monotonicSeconds() - start > maxWait) {
      logError_source(fill("Error -- %@ service failed to %@", {serviceName_, starting ? "start" : "stop"}),
                      "");
      return false;
    }
    platform_.clock.sleepMicroseconds(waitSleep);
  }
  logNotice_source(fill("%@ service %@ completed.", {serviceName_, change}), "");
  // The sequence of questions ends with one more, whose answer is not used.
  getServiceState();
  return true;
}

}  // namespace tessard
