#include "platform/network/LinuxNetwork.h"

#include "common/Format.h"

namespace tessard {

std::vector<std::string> LinuxNetwork::ZtGetAddressesForHostName(std::string_view host, double timeout) {
  auto addresses = lookup_.addressesOf(std::string(host), timeout);
  if (!addresses) {
    logInfo_source(fill("The resolver did not answer in time for the host \"%@\".", {host}), "");
    return {};
  }
  return std::move(*addresses);
}

bool LinuxNetwork::check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) {
  return restrictions_.check(ports, restrictions);
}

std::unique_ptr<PortMappingSet> LinuxNetwork::ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                            bool enable) {
  return std::make_unique<PortMappingSet>(PortMappingSet{{port}, protocol, enable});
}

int LinuxNetwork::ZtChangePortMappings(const PortMappingSet& /*mappings*/) {
  return 0;
}

}  // namespace tessard
