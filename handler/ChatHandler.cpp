#include "handler/ChatHandler.h"

#include <cerrno>
#include <exception>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr const char* kBundleIdentifier = "com.velto.tessard_notification";

// Any one of these tells that the host's first-time setup has finished, or that an older installation was
// taken over.
constexpr const char* kSetupMarkers[] = {
    "/var/db/.VeltoSetupDone",
    "/Library/Logs/Migration/beaconry_migration.log",
    "/Library/Logs/Migration/jabbermigrator.log",
};

constexpr std::uint16_t kServerToServerPort = 5268;
constexpr int kTCP = 1;

}  // namespace

NOTIFICATION_PLUGIN_ChatHandler::NOTIFICATION_PLUGIN_ChatHandler(Platform& platform)
    : PluginRequestHandler(platform), platform_(platform) {}

NOTIFICATION_PLUGIN_ChatHandler::~NOTIFICATION_PLUGIN_ChatHandler() {
  dealloc();
}

std::unique_ptr<NOTIFICATION_PLUGIN_ChatHandler> NOTIFICATION_PLUGIN_ChatHandler::init(Platform& platform) {
  auto handler = std::make_unique<NOTIFICATION_PLUGIN_ChatHandler>(platform);
  Bundle* bundle = platform.bundles.bundleWithIdentifier(kBundleIdentifier);
  const std::string* version =
      bundle ? bundle->infoDictionary().stringFor("CFBundleShortVersionString") : nullptr;
  handler->setPluginVersion(version ? *version : fill("%ld.%ld.%ld", {10, 7, 0}));
  handler->setServiceWrangler(NOTIFICATION_PLUGIN_ChatServiceWrangler::chatServiceWrangler(platform));
  handler->logDebug_source("Added notification observer.", "");
  return handler;
}

void NOTIFICATION_PLUGIN_ChatHandler::dealloc() {
  serviceWrangler_.reset();
  pluginVersion_.clear();
  logDebug_source("Removing notification observer.", "");
}

void NOTIFICATION_PLUGIN_ChatHandler::setServiceWrangler(
    std::unique_ptr<NOTIFICATION_PLUGIN_ChatServiceWrangler> wrangler) {
  serviceWrangler_ = std::move(wrangler);
}

PluginRequestHandler::Operation NOTIFICATION_PLUGIN_ChatHandler::operationForCommand(
    std::string_view command) {
  Operation operation;
  if (command == "getState") {
    operation = [this](const Dictionary& request) { return getStateWithRequest(request); };
  } else if (command == "setState") {
    operation = [this](const Dictionary& request) { return setStateWithRequest(request); };
  } else if (command == "readSettings") {
    operation = [this](const Dictionary& request) { return readSettingsWithRequest(request); };
  } else if (command == "writeSettings") {
    operation = [this](const Dictionary& request) { return writeSettingsWithRequest(request); };
  } else if (command == "undoSettings") {
    operation = [this](const Dictionary& request) { return undoSettingsWithRequest(request); };
  } else if (command == "readFormerSettings") {
    operation = [this](const Dictionary& request) { return readFormerSettingsWithRequest(request); };
  } else if (command == "initialSetup") {
    operation = [this](const Dictionary& request) { return initialSetupWithRequest(request); };
  } else if (command == "tailFile") {
    operation = [this](const Dictionary& request) { return tailFileWithRequest(request); };
  } else if (command == "getLogPaths") {
    operation = [this](const Dictionary& request) { return getLogPathsWithRequest(request); };
  } else if (command == "getConfiguredServices") {
    operation = [this](const Dictionary& request) { return getConfiguredServicesWithRequest(request); };
  } else if (command == "addService") {
    operation = [this](const Dictionary& request) { return addServiceWithRequest(request); };
  } else if (command == "removeService") {
    operation = [this](const Dictionary& request) { return removeServiceWithRequest(request); };
  } else if (command == "getServiceUser") {
    operation = [this](const Dictionary& request) { return getServiceUserWithRequest(request); };
  } else if (command == "setKorvsCertificate") {
    operation = [this](const Dictionary& request) { return setKorvsCertificateWithRequest(request); };
  } else {
    return operation;
  }
  return
      [this, operation, name = std::string(command)](const Dictionary& request) -> std::optional<Dictionary> {
        std::optional<Dictionary> answer = responseForError("CANNOT_STAT_ERR");
        runCatching(fill("request \"%@\"", {name}), [&] { answer = operation(request); });
        return answer;
      };
}

// Nothing thrown by a library may cross the boundary to the host.
void NOTIFICATION_PLUGIN_ChatHandler::runCatching(const std::string& what,
                                                  const std::function<void()>& work) const {
  try {
    work();
  } catch (const std::exception& failure) {
    logError_source(fill("%@ failed: %@", {what, failure.what()}), "");
  } catch (...) {
    logError_source(fill("%@ failed", {what}), "");
  }
}

bool NOTIFICATION_PLUGIN_ChatHandler::commandChangesState(std::string_view command) {
  return command == "setState" || command == "writeSettings" || command == "undoSettings" ||
         command == "initialSetup" || command == "addService" || command == "removeService" ||
         command == "getServiceUser" || command == "setKorvsCertificate";
}

int NOTIFICATION_PLUGIN_ChatHandler::doIdleAtCount(int /*count*/) {
  runCatching("idle work", [this] {
    if (serviceDataIsInitialized()) serviceWrangler_->doIdleTasks();
  });
  return 0;
}

void NOTIFICATION_PLUGIN_ChatHandler::didReceiveNetworkChangedNotification(
    const NetworkChangeContext& context) {
  runCatching("network change", [&] {
    if (!serviceDataIsInitialized()) return;
    std::vector<std::string> keys;
    for (const DictionaryEntry& entry : context.changeInfo()) keys.push_back(entry.key);
    logDebug_source(fill("notification received: changeKeys=\"%@\"", {Value(arrayOf(keys))}), "");
    serviceWrangler_->handleNetworkChanged(context);
  });
}

bool NOTIFICATION_PLUGIN_ChatHandler::isNetworkReady() {
  return serviceWrangler_->currentHostDomain().has_value();
}

// Whether the host's first-time setup has finished. That none of its markers can be looked at is told.
bool NOTIFICATION_PLUGIN_ChatHandler::isSetUp() {
  std::string problem;
  for (const char* marker : kSetupMarkers) {
    const auto there = isThere(platform_.files, marker);
    if (there && there.value()) return true;
    if (!there) problem = fill("\"%@\" : %@", {marker, there.error().description()});
  }
  if (!problem.empty()) {
    logError_source(fill("it cannot be told whether first-time setup is done: %@", {problem}), "");
  }
  return false;
}

bool NOTIFICATION_PLUGIN_ChatHandler::serviceDataIsInitialized() {
  const auto initialized = serviceWrangler_->getPreferenceValueForKey("initialized");
  if (initialized && initialized->boolValue()) return serviceWrangler_->serviceDataIsInitialized();
  logDebug_source("Service initialization not finished", "");
  return false;
}

bool NOTIFICATION_PLUGIN_ChatHandler::initializeServiceDataWithReadinessCheck(bool check) {
  if (!isNetworkReady()) return false;
  if (check && !isSetUp()) return false;
  const bool initialized = serviceWrangler_->initAllServiceData();
  if (initialized) {
    logDebug_source("Successfully initialized all service data", "");
    serviceWrangler_->setPreferenceValue_forKey(true, "initialized");
  } else {
    logDebug_source("Failed to initialize all service data", "");
  }
  // What is made stays, also when the request fails that it was made for: the next one finds less to make.
  platform_.changes.keep();
  return initialized;
}

bool NOTIFICATION_PLUGIN_ChatHandler::passGate() {
  return serviceDataIsInitialized() || initializeServiceDataWithReadinessCheck(true);
}

int NOTIFICATION_PLUGIN_ChatHandler::serviceStateForName(std::string_view name) {
  auto* atom = serviceWrangler_->serviceAtomForName(name);
  return atom ? atom->getServiceState() : ServiceStateStopped;
}

Dictionary NOTIFICATION_PLUGIN_ChatHandler::responseForError_serviceError(const char* code,
                                                                          int serviceError) const {
  return {{"error", code}, {"serviceError", serviceError}};
}

void NOTIFICATION_PLUGIN_ChatHandler::enablePortForwarding(bool enable) {
  const int state = serviceStateForName("jabberd");
  const bool open = enable && state != 0;
  const auto mappings = platform_.network.ZtCreateSimplePortMappingsSet(kServerToServerPort, kTCP, open);
  const int result = mappings ? platform_.network.ZtChangePortMappings(*mappings) : ENOMEM;
  if (result != 0) {
    logWarning_source(fill("Unable to modify NAT port mapping: ZtChangePortMappings() returned %d", {result}),
                      "");
  }
}

}  // namespace tessard
