#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"
#include "common/Result.h"

namespace tessard {

/// One line of /etc/hosts: an address as it is written there, and the names it has, the first one being the
/// official one.
struct HostsEntry {
  std::string address;
  std::vector<std::string> names;

  /// Whether one of the names is this one; ASCII letters are equal in both cases.
  bool lists(std::string_view name) const;
};

/// The entries of a hosts table in their order. Comments, blank lines and addresses without a name are left
/// out.
std::vector<HostsEntry> parseHostsTable(std::string_view content);

/// The entries of the system root's /etc/hosts; none when there is no such file.
Result<std::vector<HostsEntry>> readHostsTable(FileSystem& files);

/// Equality of host names: ASCII letters are equal in both cases.
bool sameHostName(std::string_view first, std::string_view second);

}  // namespace tessard
