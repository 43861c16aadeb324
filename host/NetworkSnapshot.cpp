#include "host/NetworkSnapshot.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "common/Addresses.h"

namespace tessard {

namespace {

bool reachesOthers(const InterfaceAddress& address) {
  // The numbers of scopes grow as their reach shrinks.
  if (address.scope >= RT_SCOPE_HOST) return false;
  if (address.family != AF_INET6) return !address.text.starts_with("127.");
  // These bits are those of IPv6; the temporary one means another thing for IPv4.
  if ((address.flags & (IFA_F_TEMPORARY | IFA_F_DADFAILED)) != 0) return false;
  return (address.flags & IFA_F_TENTATIVE) == 0 || (address.flags & IFA_F_OPTIMISTIC) != 0;
}

}  // namespace

HostAddresses sortedAddresses(const std::vector<InterfaceAddress>& addresses) {
  HostAddresses sorted;
  for (const InterfaceAddress& address : addresses) {
    if (!reachesOthers(address)) continue;
    (isSelfAssignedAddress(address.text) ? sorted.selfAssigned : sorted.usable).insert(address.text);
  }
  return sorted;
}

std::optional<std::string> currentHostName(HostNames& names, bool mayBeStored) {
  const auto configured = names.configuredName();
  if (!configured) return std::nullopt;
  if (configured.value() || !mayBeStored) return configured.value();
  return names.storedName();
}

}  // namespace tessard
