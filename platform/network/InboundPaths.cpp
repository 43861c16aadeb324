#include "platform/network/InboundPaths.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

namespace tessard {

namespace {

// Flags of a route: it is in use; it refuses packets.
constexpr unsigned long kRouteUp = 0x0001;
constexpr unsigned long kRouteRejects = 0x0200;

std::vector<std::vector<std::string>> fieldsOfLines(const char* path) {
  std::vector<std::vector<std::string>> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::vector<std::string> words;
    for (std::string word; fields >> word;) words.push_back(word);
    lines.push_back(std::move(words));
  }
  return lines;
}

bool isInUse(const std::string& flags) {
  const unsigned long bits = std::strtoul(flags.c_str(), nullptr, 16);
  return (bits & kRouteUp) != 0 && (bits & kRouteRejects) == 0;
}

std::set<std::string> defaultInterfaces(bool ipv6) {
  std::set<std::string> interfaces;
  if (ipv6) {
    // Destination and its length first, flags and interface last.
    for (const auto& fields : fieldsOfLines("/proc/thread-self/net/ipv6_route")) {
      if (fields.size() >= 10 && fields[0].find_first_not_of('0') == std::string::npos && fields[1] == "00" &&
          isInUse(fields[8])) {
        interfaces.insert(fields[9]);
      }
    }
    return interfaces;
  }
  // Interface, destination, gateway, flags, and the mask as the eighth.
  for (const auto& fields : fieldsOfLines("/proc/thread-self/net/route")) {
    if (fields.size() >= 8 && fields[1] == "00000000" && fields[7] == "00000000" && isInUse(fields[3])) {
      interfaces.insert(fields[0]);
    }
  }
  return interfaces;
}

std::optional<IpAddress> addressOf(const sockaddr* address) {
  IpAddress found;
  if (address && address->sa_family == AF_INET) {
    const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(address);
    std::memcpy(found.bytes.data(), &ipv4->sin_addr, sizeof ipv4->sin_addr);
    return found;
  }
  if (address && address->sa_family == AF_INET6) {
    const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (IN6_IS_ADDR_LINKLOCAL(&ipv6->sin6_addr)) return std::nullopt;
    found.ipv6 = true;
    std::memcpy(found.bytes.data(), &ipv6->sin6_addr, sizeof ipv6->sin6_addr);
    return found;
  }
  return std::nullopt;
}

}  // namespace

Result<std::vector<InboundPath>> inboundPaths() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return SystemError::last();
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  std::vector<InboundPath> paths;
  for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if ((entry->ifa_flags & IFF_LOOPBACK) != 0 || (entry->ifa_flags & IFF_UP) == 0) continue;
    if (const auto address = addressOf(entry->ifa_addr)) {
      paths.push_back({entry->ifa_name, if_nametoindex(entry->ifa_name), *address});
    }
  }
  for (const bool ipv6 : {false, true}) {
    const std::set<std::string> outward = defaultInterfaces(ipv6);
    const auto leadsOut = [&](const InboundPath& path) {
      return path.address.ipv6 == ipv6 && outward.contains(path.interface);
    };
    if (std::ranges::none_of(paths, leadsOut)) continue;
    std::erase_if(paths,
                  [&](const InboundPath& path) { return path.address.ipv6 == ipv6 && !leadsOut(path); });
  }
  std::ranges::sort(paths, [](const InboundPath& one, const InboundPath& other) {
    return std::tie(one.interface, one.address) < std::tie(other.interface, other.address);
  });
  return paths;
}

}  // namespace tessard
