#include "host/BundleLoader.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "common/Format.h"
#include "common/PluginEntry.h"
#include "platform/RootDirectory.h"

namespace tessard {

namespace {

constexpr std::string_view kBundleSuffix = ".bundle";
constexpr std::string_view kNamePrefix = "tessard_";

std::string pluginNameOf(std::string_view fileName) {
  fileName.remove_suffix(kBundleSuffix.size());
  if (fileName.starts_with(kNamePrefix)) fileName.remove_prefix(kNamePrefix.size());
  return std::string(fileName);
}

std::string linkerProblem() {
  const char* text = dlerror();
  return text ? text : "unknown reason";
}

Result<void*> openLibrary(const std::string& root, const std::string& executable) {
  auto file = openBelowRoot(root, executable, O_PATH);
  if (!file) {
    return SystemError(file.error().code(), fill("its executable %@ cannot be opened: %@",
                                                 {executable, file.error().description()}));
  }
  struct stat attributes {};
  if (fstat(file.value().get(), &attributes) != 0) return SystemError::last();
  if (!S_ISREG(attributes.st_mode)) return SystemError(EINVAL, fill("%@ is no regular file", {executable}));
  if ((attributes.st_mode & S_IWOTH) != 0) {
    return SystemError(EPERM, fill("its executable %@ may be changed by everyone", {executable}));
  }
  auto path = realPathOf(file.value());
  if (!path) return path.error();
  void* library = dlopen(path.value().c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) return SystemError(0, fill("its executable cannot be loaded: %@", {linkerProblem()}));
  return library;
}

template <class Function>
Result<Function> functionIn(void* library, const char* symbol) {
  void* found = dlsym(library, symbol);
  if (!found) return SystemError(0, fill("its executable lacks the symbol %@", {symbol}));
  return reinterpret_cast<Function>(found);
}

}  // namespace

Result<std::unique_ptr<PluginRequestHandler>> BundleLoader::load(const std::string& path) {
  const auto added = bundles_.add(path);
  if (!added) {
    return SystemError(added.error().code(),
                       fill("its Info.plist cannot be used: %@", {added.error().description()}));
  }
  DirectoryBundle& bundle = *added.value();
  const std::string* principalClass = bundle.infoDictionary().stringFor("NSPrincipalClass");
  if (!principalClass) return SystemError(0, "its Info.plist has no \"NSPrincipalClass\"");
  const auto library = openLibrary(root_, bundle.executablePath());
  if (!library) return library.error();
  const auto version =
      functionIn<PluginInterfaceVersionFunction>(library.value(), kPluginInterfaceVersionSymbol);
  if (!version) return version.error();
  if (const std::uint32_t number = version.value()(); number != kPluginInterfaceVersion) {
    return SystemError(0, fill("it was built for interface version %u, and this is version %u",
                               {number, kPluginInterfaceVersion}));
  }
  const auto create = functionIn<PluginCreateFunction>(library.value(), kPluginCreateSymbol);
  if (!create) return create.error();
  std::unique_ptr<PluginRequestHandler> handler(create.value()(principalClass->c_str(), &platform_));
  if (!handler) return SystemError(0, fill("it has no class \"%@\" to create", {*principalClass}));
  return handler;
}

Plugins BundleLoader::loadAll(const std::string& directory) {
  Plugins plugins;
  const auto names = platform_.files.listDirectory(directory);
  if (!names) return plugins;
  for (const std::string& fileName : names.value()) {
    if (!fileName.ends_with(kBundleSuffix) || fileName.size() == kBundleSuffix.size()) continue;
    auto handler = load(fill("%@/%@", {directory, fileName}));
    if (handler) {
      plugins.handlers[pluginNameOf(fileName)] = std::move(handler).value();
    } else {
      plugins.problems[pluginNameOf(fileName)] = handler.error().description();
    }
  }
  return plugins;
}

}  // namespace tessard
