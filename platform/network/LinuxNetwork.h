#pragma once

#include <memory>

#include "common/FileSystem.h"
#include "common/Log.h"
#include "common/Network.h"
#include "platform/network/HostLookup.h"
#include "platform/network/PortMapper.h"
#include "platform/network/PortRestrictions.h"

namespace tessard {

/// The network of the machine that this process runs on: its resolver, with all that it is set up to ask, its
/// packet filter, and the gateway before it.
class LinuxNetwork : public Network, private Object {
 public:
  /// `tasks` run programs of the machine. Without a mapper port mapping is off; with one, the ports that were
  /// mapped when an earlier process ended are kept mapped from now on. What is borrowed outlives this object.
  LinuxNetwork(FileSystem& files, Tasks& tasks, Log& log, std::unique_ptr<PortMapper> mapper = nullptr);

  std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) override;

  /// See `PortRestrictions::check` for what the descriptions hold.
  bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& restrictions) override;
  std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                bool enable) override;

  /// Fails with the code of the first port that the gateway refuses (see `GatewayAnswer`), and logs what
  /// happened. A mapping that is wanted is kept until it is taken away, also by later processes, for which
  /// the ports stand in the file of `readKeptPorts`, and also where the gateway refused it for now.
  int ZtChangePortMappings(const PortMappingSet& mappings) override;

 private:
  void remember(const PortMappingSet& mappings);

  FileSystem& files_;
  HostLookup lookup_;
  PortRestrictions restrictions_;
  std::unique_ptr<PortMapper> mapper_;
};

}  // namespace tessard
