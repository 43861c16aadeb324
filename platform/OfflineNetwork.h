#pragma once

#include "common/FileSystem.h"
#include "common/Network.h"

namespace tessard {

/// The network as it is known without sending a single packet: for scratch roots, tests, and hosts on which
/// nothing may leave the machine. Addresses come from numeric hosts and the system root's /etc/hosts alone;
/// no restriction of any port is known; port mapping is off, so that asking for it succeeds and does nothing.
class OfflineNetwork : public Network {
 public:
  /// The file system is borrowed and outlives this object.
  explicit OfflineNetwork(FileSystem& files) : files_(files) {}

  /// A numeric host gives itself in its canonical spelling. A name gives the addresses that /etc/hosts has
  /// for it, in the table's order, each once; entries whose address is none are passed over. A table that
  /// cannot be read gives nothing. Never waits, so the time-out plays no part.
  std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) override;

  bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) override;
  std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                bool enable) override;
  int ZtChangePortMappings(const PortMappingSet& mappings) override;

 private:
  FileSystem& files_;
};

}  // namespace tessard
