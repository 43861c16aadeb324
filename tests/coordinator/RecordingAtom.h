#pragma once

#include <cerrno>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "atoms/ChatServiceAtom.h"

namespace tessard {

/// What was asked of services, in order: "jabberd setServiceState 2".
using Journal = std::vector<std::string>;

/// A service that answers as a test says and notes every operation in a journal that services may share.
class RecordingAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  RecordingAtom(Platform& platform, const std::string& name, ServiceOwner* owner, Journal& journal)
      : NOTIFICATION_PLUGIN_ChatServiceAtom(platform), journal_(journal) {
    initWithName_owner(name, owner);
  }

  bool ready = true;
  /// What making the data answers; a success makes the service ready.
  bool initialises = true;
  std::optional<Dictionary> logPaths;
  bool archives = true;
  std::optional<SettingsDictionary> settings;
  /// What a write answers and leaves in its out-slot, the settings of all writes, and what a write does.
  bool writes = true;
  int writeError = 0;
  std::vector<std::optional<SettingsDictionary>> written;
  std::function<void()> whileWriting;
  int state = ServiceStateStopped;
  /// errno after the state was asked for, when it is not 0.
  int stateError = 0;
  /// What the next changes of state answer; afterwards they succeed.
  std::deque<bool> stateChanges;
  std::function<void(int)> whileChangingState;
  std::optional<std::vector<std::string>> domains;
  std::optional<Dictionary> connectedUsers;
  std::optional<std::vector<std::string>> connectedUserNames;
  std::optional<Array> configuredServices;
  /// What the requests answer that are handed on, and what they were.
  std::optional<Dictionary> serviceAnswer = Dictionary{{"configuredServices", Array{}}};
  std::vector<Dictionary> serviceRequests;
  std::vector<NetworkChangeContext> networkChanges;
  std::vector<NetworkChangeContext> changeIPRequests;
  /// What archiving logs does.
  std::function<void()> whileArchiving;

  bool serviceDataReady() override {
    note("serviceDataReady");
    return ready;
  }
  bool initServiceData() override {
    note("initServiceData");
    ready = ready || initialises;
    return initialises;
  }
  std::optional<Dictionary> getServiceLogPaths() override { return logPaths; }
  bool archiveServiceLogs() override {
    note("archiveServiceLogs");
    if (whileArchiving) whileArchiving();
    return archives;
  }
  std::optional<SettingsDictionary> readServiceConfiguration() override {
    note("readServiceConfiguration");
    return settings;
  }
  bool writeServiceConfiguration_error(const SettingsDictionary* given, int& error) override {
    note("writeServiceConfiguration");
    written.push_back(given ? std::optional(*given) : std::nullopt);
    if (whileWriting) whileWriting();
    error = writeError;
    return writes;
  }
  int getServiceState() override {
    note("getServiceState");
    if (stateError != 0) errno = stateError;
    return state;
  }
  bool setServiceState(int wanted) override {
    note("setServiceState " + std::to_string(wanted));
    if (whileChangingState) whileChangingState(wanted);
    if (!stateChanges.empty()) {
      const bool changed = stateChanges.front();
      stateChanges.pop_front();
      if (!changed) return false;
    }
    state = wanted;
    return true;
  }
  std::optional<std::vector<std::string>> getServiceDomains() override { return domains; }
  std::optional<Dictionary> getServiceConnectedUsers() override {
    note("getServiceConnectedUsers");
    return connectedUsers;
  }
  std::optional<std::vector<std::string>> getServiceConnectedUserNames() override {
    return connectedUserNames;
  }
  std::optional<Array> getConfiguredServices() override { return configuredServices; }
  std::optional<Dictionary> addServiceWithRequest(const Dictionary& request) override {
    note("addService");
    serviceRequests.push_back(request);
    return serviceAnswer;
  }
  std::optional<Dictionary> removeServiceWithRequest(const Dictionary& request) override {
    note("removeService");
    serviceRequests.push_back(request);
    return serviceAnswer;
  }
  std::optional<Dictionary> getServiceUserWithRequest(const Dictionary& request) override {
    note("getServiceUser");
    serviceRequests.push_back(request);
    return serviceAnswer;
  }
  std::optional<Dictionary> setKorvsCertificateWithRequest(const Dictionary& request) override {
    note("setKorvsCertificate");
    serviceRequests.push_back(request);
    return serviceAnswer;
  }
  void handleNetworkChanged(const NetworkChangeContext& context) override {
    note("handleNetworkChanged");
    networkChanges.push_back(context);
  }
  void handleChangeIPRequest(const NetworkChangeContext& context) override {
    note("handleChangeIPRequest");
    changeIPRequests.push_back(context);
  }

 private:
  void note(const std::string& operation) { journal_.push_back(serviceName() + " " + operation); }

  Journal& journal_;
};

}  // namespace tessard
