#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/Platform.h"
#include "common/PluginRequestHandler.h"
#include "common/ServiceTypes.h"
#include "coordinator/ChatServiceWrangler.h"

namespace tessard {

/// The plug-in's principal class: the only object that the host talks to. It makes sure that the services'
/// data is initialised, hands requests to the coordinator and shapes the answers. On the host's thread, one
/// request at a time.
class NOTIFICATION_PLUGIN_ChatHandler : public PluginRequestHandler {
 public:
  explicit NOTIFICATION_PLUGIN_ChatHandler(Platform& platform);
  ~NOTIFICATION_PLUGIN_ChatHandler() override;

  /// A ready handler with a coordinator of its own. The platform outlives it.
  static std::unique_ptr<NOTIFICATION_PLUGIN_ChatHandler> init(Platform& platform);

  /// Clears what the handler holds. Runs once, at the end of its life.
  void dealloc();

  const std::string& pluginVersion() const { return pluginVersion_; }
  void setPluginVersion(std::string version) { pluginVersion_ = std::move(version); }
  NOTIFICATION_PLUGIN_ChatServiceWrangler* serviceWrangler() const { return serviceWrangler_.get(); }
  void setServiceWrangler(std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler> wrangler);

  Operation operationForCommand(std::string_view command) override;
  bool commandChangesState(std::string_view command) override;
  int doIdleAtCount(int count) override;
  void didReceiveNetworkChangedNotification(const NetworkChangeContext& context) override;

  /// Whether the host name is known.
  bool isNetworkReady();
  bool serviceDataIsInitialized();
  /// Makes the services' data. With the check, only when the host's first-time setup has finished. True when
  /// the data is there.
  bool initializeServiceDataWithReadinessCheck(bool check);
  /// The state of the service, 0 for an unknown name. errno tells why a state is unknown.
  int serviceStateForName(std::string_view name);
  /// {"error", "serviceError"}.
  Dictionary responseForError_serviceError(const char* code, int serviceError) const;
  /// Opens or closes the server-to-server port at the gateway; a failure only logs.
  void enablePortForwarding(bool enable);

  Dictionary getStateWithRequest(const Dictionary& request);
  Dictionary setStateWithRequest(const Dictionary& request);
  /// Absent is an error of the plug-in; the base answers always.
  virtual std::optional<Dictionary> readSettingsWithRequest(const Dictionary& request);
  /// Settings that cannot be read as what their keys ask are answered with "INVALID_ARG_ERR" before anything
  /// is loaded.
  Dictionary writeSettingsWithRequest(const Dictionary& request);
  /// Undoes the last settings write that succeeded: the settings as they then read, "files" with the paths of
  /// what was put back, and what a write says of a restart. Undone once more, the write is made again.
  /// "NOTHING_TO_UNDO_ERR" when there is none; "CHANGED_SINCE_ERR", with those "files" that are in the way,
  /// when somebody has changed them since; "CANNOT_STAT_ERR" when it failed. Nothing is changed then, and an
  /// error line says why.
  std::optional<Dictionary> undoSettingsWithRequest(const Dictionary& request);
  /// What that would answer, "configuration" and "files" alone, with nothing changed.
  Dictionary readFormerSettingsWithRequest(const Dictionary& request);
  Dictionary initialSetupWithRequest(const Dictionary& request);
  /// The base's operation, with a filter added for the logs that other services write to as well.
  Dictionary tailFileWithRequest(const Dictionary& request) override;
  /// The paths of the notification service's logs by their identifiers; an empty dictionary before the
  /// service data is there.
  Dictionary getLogPathsWithRequest(const Dictionary& request);
  /// {"configuredServices"}, or an empty dictionary before the service data is there.
  Dictionary getConfiguredServicesWithRequest(const Dictionary& request);
  /// What the notification atom answers. A request without "service" or "hostName" is answered with
  /// "INVALID_ARG_ERR".
  std::optional<Dictionary> addServiceWithRequest(const Dictionary& request);
  std::optional<Dictionary> removeServiceWithRequest(const Dictionary& request);
  /// What the notification atom answers, an empty dictionary before the service data is there. Makes the
  /// account when there is none yet. A "service" that is no string, or holds control characters, is answered
  /// with "INVALID_ARG_ERR".
  std::optional<Dictionary> getServiceUserWithRequest(const Dictionary& request);
  /// What the notification atom answers. A "certificateName" that is no string, or holds control characters,
  /// is answered with "INVALID_ARG_ERR".
  std::optional<Dictionary> setKorvsCertificateWithRequest(const Dictionary& request);

 protected:
  /// Those of all services.
  std::optional<Dictionary> logPaths() override;

 private:
  /// What both forms of the state answer are made of.
  struct RunningState {
    bool jabberd = false;
    bool publishSubscribe = false;
  };

  /// Does the work; what it throws becomes an error line, "%@ failed: %@", and goes no further.
  void runCatching(const std::string& what, const std::function<void()>& work) const;
  bool passGate();
  bool isSetUp();
  NOTIFICATION_PLUGIN_ChatServiceAtom* notificationAtom() const;
  std::optional<Dictionary> refusalOfServiceRequest(const Dictionary& request) const;
  Dictionary refusal(std::string_view what, std::string_view problem) const;
  void addDetails(RunningState running, Dictionary& answer);
  std::string startedTime(RunningState running);
  std::string currentConnections(RunningState running);
  int startServices();
  int stopServices();
  int restartServices();
  std::optional<std::string> problemWithConfiguration(const Dictionary& configuration);
  int writeConfiguration(const Dictionary* configuration);
  std::optional<Dictionary> refusalOfUndo(const LastChange& last) const;

  Platform& platform_;
  std::string pluginVersion_;
  std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler> serviceWrangler_;
};

}  // namespace tessard
