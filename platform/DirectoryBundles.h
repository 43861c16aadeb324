#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Bundles.h"
#include "common/FileSystem.h"
#include "common/Result.h"

namespace tessard {

/// A bundle in a directory below the system root:
///
///     Contents/Info.plist
///     Contents/Linux/<the executable that Info.plist names>
///     Contents/Resources/...
///
/// Its information dictionary is read once, when the bundle is added; resources are looked for on every call.
class DirectoryBundle : public Bundle {
 public:
  /// Made by `DirectoryBundles`.
  DirectoryBundle(FileSystem& files, std::string path, Dictionary information);

  const Dictionary& infoDictionary() override { return information_; }

  /// "<bundle>/Contents/Resources/name[.type]" when a regular file is there, or when that cannot be told: who
  /// uses it then learns why. A name or type that would lead
  /// elsewhere (empty name, "/", a NUL byte, "." and "..") has no resource.
  std::optional<std::string> pathForResource_ofType(std::string_view name, std::string_view type) override;

  /// Its directory, below the system root, without a slash at the end.
  const std::string& path() const { return path_; }
  const std::string& identifier() const;
  /// Where its executable must be, below the system root.
  std::string executablePath() const;

 private:
  FileSystem& files_;
  std::string path_;
  Dictionary information_;
};

/// The bundles of this process, by their directories.
class DirectoryBundles : public Bundles {
 public:
  /// The file system is borrowed and outlives this object and the bundles.
  explicit DirectoryBundles(FileSystem& files) : files_(files) {}

  /// Registers the bundle in a directory, given below the system root. Fails, and registers nothing, when its
  /// Info.plist cannot be read, when "CFBundleIdentifier" or "CFBundleExecutable" is missing or empty there,
  /// when the executable's name is a path, or with EEXIST when a bundle of that identifier is registered. The
  /// executable itself is not looked at. The bundle belongs to this object and stays until it goes.
  Result<DirectoryBundle*> add(std::string_view directory);

  Bundle* bundleWithIdentifier(std::string_view identifier) override;

 private:
  FileSystem& files_;
  std::vector<std::unique_ptr<DirectoryBundle>> bundles_;
};

}  // namespace tessard
