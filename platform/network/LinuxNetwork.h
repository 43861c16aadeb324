#pragma once

#include "common/Log.h"
#include "common/Network.h"
#include "platform/network/HostLookup.h"
#include "platform/network/PortRestrictions.h"

namespace tessard {

/// The network of the machine that this process runs on: its resolver, with all that it is set up to ask, and
/// its packet filter.
class LinuxNetwork : public Network, private Object {
 public:
  /// Both are borrowed and outlive this object. `tasks` run programs of the machine.
  LinuxNetwork(Tasks& tasks, Log& log) : Object(log), restrictions_(tasks, log) {}

  std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) override;

  /// See `PortRestrictions::check` for what the descriptions hold.
  bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) override;
  std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                bool enable) override;
  int ZtChangePortMappings(const PortMappingSet& mappings) override;

 private:
  HostLookup lookup_;
  PortRestrictions restrictions_;
};

}  // namespace tessard
