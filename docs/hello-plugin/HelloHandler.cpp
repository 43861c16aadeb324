// The smallest plug-in that tessardd takes. It knows one command:
//   tessardctl --plugin hello request greet '{"name": "Ann"}'

#include <common/PluginEntry.h>

#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace tessard;

class HelloHandler : public PluginRequestHandler {
 public:
  using PluginRequestHandler::PluginRequestHandler;

  Operation operationForCommand(std::string_view command) override {
    if (command == "greet") return [this](const Dictionary& request) { return greetWithRequest(request); };
    return {};
  }

  bool commandChangesState(std::string_view /*command*/) override { return false; }
  int doIdleAtCount(int /*count*/) override { return 0; }
  void didReceiveNetworkChangedNotification(const NetworkChangeContext& /*context*/) override {}

 private:
  std::optional<Dictionary> greetWithRequest(const Dictionary& request) const {
    const std::string* name = request.stringFor("name");
    if (!name) return responseForError("INVALID_ARG_ERR");
    return Dictionary{{"greeting", "Hello " + *name + "."}};
  }
};

}  // namespace

extern "C" {

[[gnu::visibility("default")]] std::uint32_t tessardPluginInterfaceVersion() {
  return kPluginInterfaceVersion;
}

[[gnu::visibility("default")]] PluginRequestHandler* tessardPluginCreate(const char* principalClass,
                                                                         Platform* platform) {
  if (std::string_view(principalClass) != "HelloHandler") return nullptr;
  return std::make_unique<HelloHandler>(*platform).release();
}
}
