#include "platform/network/Gateway.h"

#include "common/Format.h"

namespace tessard {

GatewayAnswer askGateway(MappingMethod method, std::uint16_t port, std::uint32_t leaseSeconds) {
  if (method == MappingMethod::upnp) return askByUpnp(port, leaseSeconds);
  GatewayAnswer first = askByNatPmp(port, leaseSeconds);
  if (method == MappingMethod::natPmp) return first;
  // It may have been mapped by either, before this process began.
  if (leaseSeconds != 0 && first.code == 0) return first;
  GatewayAnswer second = askByUpnp(port, leaseSeconds);
  if (first.code == 0 || second.code == 0) return first.code == 0 ? first : second;
  return {second.code, fill("%@; %@", {first.text, second.text})};
}

}  // namespace tessard
