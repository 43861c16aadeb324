#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Platform.h"
#include "common/PluginRequestHandler.h"
#include "common/Result.h"
#include "platform/DirectoryBundles.h"

namespace tessard {

/// The plug-ins that the host knows, by the names that requests use.
struct Plugins {
  std::map<std::string, std::unique_ptr<PluginRequestHandler>, std::less<>> handlers;
  /// Why a bundle that is there could not be used, as a sentence.
  std::map<std::string, std::string, std::less<>> problems;
};

/// Loads bundles. Their code stays in the process until it ends.
class BundleLoader {
 public:
  /// `root` is the machine's path of the system root. All is borrowed and outlives every handler.
  BundleLoader(std::string root, DirectoryBundles& bundles, Platform& platform)
      : root_(std::move(root)), bundles_(bundles), platform_(platform) {}

  /// Every "NAME.bundle" in a directory below the root. The plug-in's name for requests is NAME without
  /// "tessard_" at its beginning. A directory that is not there has no plug-ins.
  Plugins loadAll(const std::string& directory);

  /// One bundle. Fails with a sentence: no bundle or a broken Info.plist; an executable that is missing, may
  /// be changed by everyone, or is no shared object; symbols that are missing; another interface version; a
  /// principal class that it does not have.
  Result<std::unique_ptr<PluginRequestHandler>> load(const std::string& path);

 private:
  std::string root_;
  DirectoryBundles& bundles_;
  Platform& platform_;
};

}  // namespace tessard
