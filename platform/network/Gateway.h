#pragma once

#include <cstdint>
#include <string>

namespace tessard {

/// How a gateway is asked to map a port.
enum class MappingMethod {
  natPmp,
  upnp,
  automatic,  ///< NAT-PMP first, UPnP where nobody answers that
};

/// What became of a question to the gateway: code 0 and a sentence's end that says what holds now, or another
/// code - an errno value, a negative one of NAT-PMP, or a UPnP error - and the reason.
struct GatewayAnswer {
  int code = 0;
  std::string text;
};

/// Asks the gateway of the default route to forward its TCP port of that number to the same port of this
/// machine for `leaseSeconds`, or not to any longer when that is 0. A gateway that offers another port only
/// is told to forget it (EADDRINUSE). Taking away what is not there, or is another machine's, succeeds.
///
/// Waits for the gateway: with NAT-PMP no longer than `kNatPmpSeconds`; with UPnP for four seconds when
/// nobody answers, and for as long as it likes with a gateway that answers byte by byte. Any thread may call.
GatewayAnswer askGateway(MappingMethod method, std::uint16_t port, std::uint32_t leaseSeconds);

inline constexpr double kNatPmpSeconds = 4;

/// The two ways by themselves.
GatewayAnswer askByNatPmp(std::uint16_t port, std::uint32_t leaseSeconds);
GatewayAnswer askByUpnp(std::uint16_t port, std::uint32_t leaseSeconds);

}  // namespace tessard
