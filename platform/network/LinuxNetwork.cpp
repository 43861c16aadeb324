#include "platform/network/LinuxNetwork.h"

#include <cerrno>
#include <set>
#include <utility>

#include "common/Format.h"
#include "platform/network/KeptPorts.h"

namespace tessard {

namespace {

constexpr int kTcp = 1;

}  // namespace

LinuxNetwork::LinuxNetwork(FileSystem& files, Tasks& tasks, Log& log, std::unique_ptr<PortMapper> mapper)
    : Object(log), files_(files), restrictions_(tasks, log), mapper_(std::move(mapper)) {
  if (!mapper_) return;
  const auto ports = readKeptPorts(files_);
  if (ports) {
    mapper_->keep({ports.value().begin(), ports.value().end()});
    return;
  }
  logWarning_source(fill("%@ is not used: %@; ports that were mapped before are not kept mapped.",
                         {kKeptPortsFile, ports.error().description()}),
                    "");
}

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

int LinuxNetwork::ZtChangePortMappings(const PortMappingSet& mappings) {
  if (!mapper_) return 0;
  if (mappings.protocol != kTcp) {
    logWarning_source(fill("Ports of the protocol %d cannot be mapped.", {mappings.protocol}), "");
    return EPROTONOSUPPORT;
  }
  remember(mappings);
  int result = 0;
  for (const std::uint16_t port : mappings.ports) {
    const GatewayAnswer answer = mapper_->change(port, mappings.enable);
    if (answer.code == 0) {
      logInfo_source(fill("Port %u is %@.", {port, answer.text}), "");
      continue;
    }
    logWarning_source(
        fill(mappings.enable ? "Port %u cannot be mapped at the gateway: %@."
                             : "The mapping of port %u cannot be taken away at the gateway: %@.",
             {port, answer.text}),
        "");
    if (result == 0) result = answer.code;
  }
  return result;
}

void LinuxNetwork::remember(const PortMappingSet& mappings) {
  const auto before = readKeptPorts(files_);
  std::set<std::uint16_t> ports = before ? before.value() : std::set<std::uint16_t>();
  for (const std::uint16_t port : mappings.ports) {
    if (mappings.enable) {
      ports.insert(port);
    } else {
      ports.erase(port);
    }
  }
  if (before && ports == before.value()) return;
  if (const auto written = writeKeptPorts(files_, ports); !written) {
    logWarning_source(fill("The ports to be mapped cannot be remembered in %@: %@.",
                           {kKeptPortsFile, written.error().description()}),
                      "");
  }
}

}  // namespace tessard
