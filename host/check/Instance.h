#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"
#include "common/Value.h"
#include "common/XmlDocument.h"

namespace tessard {

/// One component that the master file lists, as its file stands on disk.
struct InstanceComponent {
  std::string kind;  ///< "router", "sm", "s2s" or "c2s"
  std::string path;
  std::optional<SystemError> unreadable;  ///< why the file could not be read
  std::optional<SystemError> malformed;   ///< why what was read is no XML
  std::optional<XmlDocument> document;

  /// Empty for a file that could not be read or parsed.
  XmlNode root() const { return document ? document->root() : XmlNode(); }
  std::vector<XmlNode> elementsAt(std::string_view path) const;
  std::vector<std::string> textsAt(std::string_view path) const;
  /// Empty when there is no such element.
  std::string textAt(std::string_view path) const;
  bool has(std::string_view path) const { return !elementsAt(path).empty(); }
};

/// The configuration of the service as it stands on disk, read without a change.
struct Instance {
  std::optional<SystemError> masterProblem;  ///< why there are no components
  std::vector<InstanceComponent> components;
  std::vector<std::string> strayLines;  ///< lines of the master file that list nothing and are no comments

  /// The property lists; absent with the problem beside it (ENOENT where there is no such file).
  std::optional<Dictionary> settings;
  std::optional<SystemError> settingsProblem;
  std::optional<Dictionary> preferences;
  std::optional<SystemError> preferencesProblem;

  /// Whether first-time setup is done.
  bool isSetUp() const;
  /// The components of a kind, in the order of the master file.
  std::vector<const InstanceComponent*> all(std::string_view kind) const;
  /// The first of them; null when there is none, or when its file could not be parsed.
  const InstanceComponent* first(std::string_view kind) const;
  /// The domains that c2s serves.
  std::vector<std::string> domains() const;
};

Instance readInstance(FileSystem& files);

/// The path of a file in the directory of the configuration.
std::string inConfiguration(std::string_view name);

}  // namespace tessard
