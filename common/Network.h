#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/Value.h"

namespace tessard {

/// A port or a set of ports, as the list of ports to check has them.
using PortItem = std::variant<std::uint16_t, std::set<std::uint16_t>>;

/// What a port-mapping set asks of the gateway.
struct PortMappingSet {
  std::vector<std::uint16_t> ports;
  int protocol = 1;  ///< 1: TCP
  bool enable = false;
};

/// The machine's network.
class Network {
 public:
  virtual ~Network() = default;

  /// The addresses of a host in textual form, in the order of the resolver; empty when there are none or the
  /// time (in seconds) is over.
  virtual std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) = 0;

  /// True when an inbound packet to one of the listed ports would be refused; `restrictions` then describes
  /// each (replaced in every case).
  virtual bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) = 0;

  /// A set that maps one port to this machine (`enable`), or takes the mapping away.
  virtual std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                        bool enable) = 0;

  /// Applies a set at the gateway. 0 on success, and also where port mapping is switched off and nothing is
  /// sent.
  virtual int ZtChangePortMappings(const PortMappingSet& mappings) = 0;
};

}  // namespace tessard
