#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/Value.h"

namespace tessard {

/// A loaded plug-in bundle: a directory with Contents/Info.plist and Contents/Resources.
class Bundle {
 public:
  virtual ~Bundle() = default;

  /// The content of Info.plist.
  virtual const Dictionary& infoDictionary() = 0;

  /// The path of a resource below the system root; an empty type stands for no extension. Absent when the
  /// bundle has no such file.
  virtual std::optional<std::string> pathForResource_ofType(std::string_view name, std::string_view type) = 0;
};

/// The bundles that the host has loaded.
class Bundles {
 public:
  virtual ~Bundles() = default;

  /// Null when no loaded bundle has the identifier. Owned by the host, valid as long as it runs.
  virtual Bundle* bundleWithIdentifier(std::string_view identifier) = 0;
};

}  // namespace tessard
