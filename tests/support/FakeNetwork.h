#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Network.h"

namespace tessard {

/// A network of the hosts that a test names; sends nothing.
class FakeNetwork : public Network {
 public:
  struct Lookup {
    std::string host;
    double timeout;
    bool operator==(const Lookup&) const = default;
  };

  /// Addresses by host; a host that is missing has none.
  std::map<std::string, std::vector<std::string>, std::less<>> addresses;
  std::vector<Lookup> lookups;
  /// Called after each lookup.
  std::function<void()> afterLookup;

  /// What checking ports finds: restricted when the array is not empty.
  Array restrictions;
  std::vector<std::vector<PortItem>> checkedPorts;

  /// What changing port mappings returns, and the sets that were applied.
  int mappingResult = 0;
  /// No set can be made: making one gives null.
  bool noMappingSets = false;
  std::vector<PortMappingSet> appliedMappings;

  std::vector<std::string> ZtGetAddressesForHostName(std::string_view host, double timeout) override {
    lookups.push_back({std::string(host), timeout});
    if (afterLookup) afterLookup();
    const auto found = addresses.find(host);
    return found == addresses.end() ? std::vector<std::string>{} : found->second;
  }

  bool check_if_ports_are_restricted(const std::vector<PortItem>& ports, Array& found) override {
    checkedPorts.push_back(ports);
    found = restrictions;
    return !restrictions.empty();
  }

  std::unique_ptr<PortMappingSet> ZtCreateSimplePortMappingsSet(std::uint16_t port, int protocol,
                                                                bool enable) override {
    if (noMappingSets) return nullptr;
    return std::make_unique<PortMappingSet>(PortMappingSet{{port}, protocol, enable});
  }

  int ZtChangePortMappings(const PortMappingSet& mappings) override {
    appliedMappings.push_back(mappings);
    return mappingResult;
  }
};

}  // namespace tessard
