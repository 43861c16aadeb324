#pragma once

#include "common/Log.h"
#include "common/Network.h"
#include "platform/network/HostLookup.h"

namespace tessard {

/// The network of the machine that this process runs on: its resolver, with all that it is set up to ask.
class LinuxNetwork : public Network, private Object {
 public:
  /// The log is borrowed and outlives this object.
  explicit LinuxNetwork(Log& log) : Object(log) {}

  std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) override;

  bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) override;
  std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                bool enable) override;
  int ZtChangePortMappings(const PortMappingSet& mappings) override;

 private:
  HostLookup lookup_;
};

}  // namespace tessard
