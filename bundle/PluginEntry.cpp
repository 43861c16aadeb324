#include "common/PluginEntry.h"

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "handler/ChatHandler.h"

// Every other name stays inside the bundle; so does every exception.

namespace {

constexpr std::string_view kPrincipalClass = "NOTIFICATION_PLUGIN_ChatHandler";

/// Reports what went wrong before there is a handler that could.
class Entry : public tessard::Object {
 public:
  using Object::Object;
  void report(std::string_view reason) const {
    try {
      logError_source("unable to create the plug-in: " + std::string(reason), "");
    } catch (...) {  // NOLINT(bugprone-empty-catch): without a log there is nobody to tell
    }
  }
};

}  // namespace

extern "C" {

[[gnu::visibility("default")]] std::uint32_t tessardPluginInterfaceVersion() {
  return tessard::kPluginInterfaceVersion;
}

[[gnu::visibility("default")]] tessard::PluginRequestHandler* tessardPluginCreate(
    const char* principalClass, tessard::Platform* platform) {
  if (!principalClass || !platform || principalClass != kPrincipalClass) return nullptr;
  try {
    return tessard::NOTIFICATION_PLUGIN_ChatHandler::init(*platform).release();
  } catch (const std::exception& error) {
    Entry(platform->log).report(error.what());
  } catch (...) {
    Entry(platform->log).report("unknown exception");
  }
  return nullptr;
}

}  // extern "C"

// The signatures are those that hosts look the symbols up with.
static_assert(
    std::is_same_v<decltype(&tessardPluginInterfaceVersion), tessard::PluginInterfaceVersionFunction>);
static_assert(std::is_same_v<decltype(&tessardPluginCreate), tessard::PluginCreateFunction>);
