#include "platform/OfflineNetwork.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <optional>

#include "platform/HostsTable.h"

namespace tessard {

namespace {

std::optional<std::string> canonicalAddress(const std::string& text) {
  // An embedded NUL would hide the rest of the text from the C functions.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  for (const int family : {AF_INET, AF_INET6}) {
    std::array<unsigned char, sizeof(in6_addr)> address{};
    std::array<char, INET6_ADDRSTRLEN> spelling{};
    if (::inet_pton(family, text.c_str(), address.data()) != 1) continue;
    if (::inet_ntop(family, address.data(), spelling.data(), spelling.size())) return spelling.data();
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string> OfflineNetwork::ZtGetAddressesForHostName(std::string_view host,
                                                                   double /*timeout*/) {
  if (const auto numeric = canonicalAddress(std::string(host))) return {*numeric};
  if (host.ends_with('.')) host.remove_suffix(1);  // the root of the name tree, which the table leaves out

  std::vector<std::string> addresses;
  const auto table = readHostsTable(files_);
  if (!table) return addresses;
  for (const HostsEntry& entry : table.value()) {
    if (!entry.lists(host)) continue;
    const auto address = canonicalAddress(entry.address);
    if (address && std::ranges::find(addresses, *address) == addresses.end()) addresses.push_back(*address);
  }
  return addresses;
}

bool OfflineNetwork::check_if_ports_are_restricted(const std::vector<PortItem>& /*ports*/,
                                                   Array& restrictions) {
  restrictions.clear();
  return false;
}

std::unique_ptr<PortMappingSet> OfflineNetwork::ZtCreateSimplePortMappingsSet(std::uint16_t port,
                                                                              int protocol, bool enable) {
  return std::make_unique<PortMappingSet>(PortMappingSet{{port}, protocol, enable});
}

int OfflineNetwork::ZtChangePortMappings(const PortMappingSet& /*mappings*/) {
  return 0;
}

}  // namespace tessard
