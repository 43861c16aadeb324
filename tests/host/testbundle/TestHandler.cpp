#include <stdexcept>
#include <string>
#include <string_view>

#include "common/Format.h"
#include "common/Platform.h"
#include "common/PluginEntry.h"
#include "common/PluginRequestHandler.h"

#ifndef HOSTTEST_INTERFACE_VERSION
#define HOSTTEST_INTERFACE_VERSION tessard::kPluginInterfaceVersion
#endif

namespace {

using namespace tessard;

constexpr std::uint32_t kPollMicroseconds = 5000;

// A plug-in that does what a test tells it to do.
class HostTestHandler : public PluginRequestHandler {
 public:
  explicit HostTestHandler(Platform& platform) : PluginRequestHandler(platform), platform_(platform) {}

  Operation operationForCommand(std::string_view command) override {
    if (command == "echo") return [](const Dictionary& request) { return request; };
    if (command == "nothing") return [](const Dictionary&) { return std::nullopt; };
    if (command == "throw") return [](const Dictionary& request) { return fail(request); };
    if (command == "log") return [this](const Dictionary& request) { return log(request); };
    if (command == "wait") return [this](const Dictionary& request) { return wait(request); };
    if (command == "kinds") return [](const Dictionary&) { return kinds(); };
    if (command == "unwritable") return [](const Dictionary&) { return unwritable(); };
    if (command == "initialSetup") return [](const Dictionary& request) { return setup(request); };
    if (command == "getState") return [this](const Dictionary& request) { return getState(request); };
    if (command == "setState") return [this](const Dictionary& request) { return setState(request); };
    if (command == "readSettings") return [this](const Dictionary& request) { return read(request); };
    if (command == "writeSettings") return [this](const Dictionary& request) { return write(request); };
    return {};
  }

  bool commandChangesState(std::string_view command) override {
    return command == "initialSetup" || command == "setState" || command == "writeSettings";
  }

  int doIdleAtCount(int count) override {
    note("/idle", std::to_string(count));
    return 0;
  }

  void didReceiveNetworkChangedNotification(const NetworkChangeContext& context) override {
    if (context.newHost() == "throw.example") throw std::runtime_error("told to throw");
    note("/network", context.newHost().value_or("none"));
  }

 private:
  using Answer = std::optional<Dictionary>;

  static Answer fail(const Dictionary& request) {
    if (request.contains("number")) throw 42;
    throw std::runtime_error("told to throw");
  }

  Answer log(const Dictionary& request) const {
    const std::string text = request.find("text") ? request.find("text")->description() : "line";
    logInfo_source(text + " info", "");
    logNotice_source(text + " notice", "");
    logWarning_source(text + " warning", "");
    if (!request.contains("warningOnly")) logError_source(text + " error", "");
    logDebug_source(text + " debug", "");
    return Dictionary{{"logged", true}};
  }

  // Tells that it has begun with a file, and goes on when another one is there.
  Answer wait(const Dictionary& request) const {
    note(*request.stringFor("begun"), "");
    while (!platform_.files.exists(*request.stringFor("until"))) {
      platform_.clock.sleepMicroseconds(kPollMicroseconds);
    }
    return Dictionary{{"waited", true}};
  }

  static Answer kinds() {
    return Dictionary{{"text", "grün \"<&>\" \n"},
                      {"integer", -5},
                      {"real", 0.5},
                      {"yes", true},
                      {"data", Data{std::string("\0\xff\x10", 3)}},
                      {"date", Date{1795226427000000}},
                      {"list", Array{"a", 1, Dictionary{{"x", "y"}}}}};
  }

  static Answer unwritable() { return Dictionary{{"text", std::string("a\0b", 3)}}; }

  static Answer setup(const Dictionary& request) {
    if (request.contains("fail")) return Dictionary{{"error", "CANNOT_STAT_ERR"}};
    return Dictionary{{"state", "RUNNING"}};
  }

  Answer getState(const Dictionary& request) const {
    if (request.contains("errno")) return Dictionary{{"error", "CANNOT_STAT_ERR"}, {"serviceError", 2}};
    Dictionary answer = {{"state", state_}};
    if (request.contains("variant")) answer.set("pluginVersion", "1\033[2J");
    return answer;
  }

  Answer setState(const Dictionary& request) {
    const std::string* state = request.stringFor("state");
    if (!state || *state == "SAVE") return responseForError("INVALID_ARG_ERR");
    if (platform_.files.exists("/stubborn")) {
      logError_source("it would not start", "");
    } else {
      state_ = *state == "STOP" ? "STOPPED" : "RUNNING";
    }
    return getState(request);
  }

  Answer read(const Dictionary& request) const {
    const Dictionary* arguments = request.dictionaryFor("optionalArguments");
    const Array* keys = arguments ? arguments->arrayFor("parameters") : nullptr;
    return Dictionary{{"configuration", keys ? settings_.dictionaryForKeys(stringsOf(*keys)) : settings_},
                      {"readStatus", 0}};
  }

  Answer write(const Dictionary& request) {
    const Dictionary* configuration = request.dictionaryFor("configuration");
    const Value* status = configuration ? configuration->find("status") : nullptr;
    if (configuration && !status) settings_.updateWithDictionary(*configuration);
    Dictionary answer = *read({});
    if (!status || status->integerValue() >= 0) answer.set("writeStatus", status ? *status : Value(0));
    if (!status) answer.set("needsRecycleOrRestart", true);
    return answer;
  }

  void note(const std::string& path, const std::string& content) const {
    if (!platform_.files.createFile(path, content, {}, Flush::now))
      logError_source("cannot write " + path, "");
  }

  Platform& platform_;
  std::string state_ = "STOPPED";
  Dictionary settings_;
};

}  // namespace

#ifndef HOSTTEST_WITHOUT_SYMBOLS

extern "C" __attribute__((visibility("default"))) std::uint32_t tessardPluginInterfaceVersion() {
  return HOSTTEST_INTERFACE_VERSION;
}

#ifndef HOSTTEST_WITHOUT_CREATE

extern "C" __attribute__((visibility("default"))) tessard::PluginRequestHandler* tessardPluginCreate(
    const char* principalClass, tessard::Platform* platform) {
  if (std::string_view(principalClass) != "HostTestHandler") return nullptr;
  return new HostTestHandler(*platform);
}

#endif
#endif
