#pragma once

#include <string>
#include <vector>

#include "common/Result.h"
#include "platform/network/IpAddress.h"

namespace tessard {

/// A way by which packets from other hosts come to this machine.
struct InboundPath {
  std::string interface;
  unsigned interfaceIndex = 0;
  IpAddress address;  ///< the machine's own, which they are sent to

  bool operator==(const InboundPath&) const = default;
};

/// The addresses of every interface that is up, without the loopback and without link-local ones. Where some
/// of the interfaces have a family's default route, that family's addresses are of those alone: strangers
/// come in by them. Sorted by interface and address; none on a machine that is connected to nothing.
Result<std::vector<InboundPath>> inboundPaths();

}  // namespace tessard
