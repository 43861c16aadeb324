#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/HostNames.h"
#include "platform/network/InterfaceAddresses.h"

namespace tessard {

/// The addresses that others can reach the machine by.
struct HostAddresses {
  std::set<std::string> usable;
  std::set<std::string> selfAssigned;  ///< 169.254/16 and fe80::/10
  bool operator==(const HostAddresses&) const = default;
};

/// What a machine goes by at one moment.
struct NetworkSnapshot {
  std::optional<std::string> host;           ///< fully qualified where that is known
  std::optional<HostAddresses> addresses{};  ///< absent for a system root that has no network of its own
};

/// Sorts addresses. Left out are those that reach only the machine itself, IPv6 addresses that the kernel has
/// not yet found to be free or has found taken, and the temporary ones of IPv6 that change by themselves. An
/// address with a wider scope counts on whatever interface it is, the loopback one included.
HostAddresses sortedAddresses(const std::vector<InterfaceAddress>& addresses);

/// The name that a machine goes by: the configured one, else the stored one where that may stand for it.
/// Absent when there is none, and when the configuration cannot be read.
std::optional<std::string> currentHostName(HostNames& names, bool mayBeStored);

}  // namespace tessard
