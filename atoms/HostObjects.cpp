#include "atoms/HostObjects.h"

#include <algorithm>

#include "common/Text.h"

namespace tessard {

namespace {

constexpr double kOneLookupSeconds = 5;

}  // namespace

HostObjects::HostObjects(Network& network, Clock& clock)
    : network_(network), clock_(clock), end_(clock.monotonicSeconds() + kLookupSeconds) {}

const HostObject& HostObjects::hostWithName(std::string_view name) {
  std::string lower = asciiLowercase(name);
  const auto found = known_.find(lower);
  if (found != known_.end()) return found->second;
  HostObject host{lower, resolve(lower)};
  return known_.emplace(std::move(lower), std::move(host)).first->second;
}

HostObject HostObjects::currentHostWithName(std::string_view name) {
  HostObject host = hostWithName(name);
  for (const char* loopback : {"127.0.0.1", "::1"}) host.addresses.emplace_back(loopback);
  return host;
}

bool HostObjects::isSame(const HostObject& host, std::string_view name) {
  // One name leads to the same addresses, and an unresolved host has nothing but its name to be known by:
  // both are told without a lookup.
  if (asciiLowercase(name) == host.name) return true;
  if (host.addresses.empty()) return false;
  const HostObject& other = hostWithName(name);
  return std::ranges::any_of(other.addresses, [&](const std::string& address) {
    return std::ranges::find(host.addresses, address) != host.addresses.end();
  });
}

std::vector<std::string> HostObjects::resolve(const std::string& name) {
  const double left = end_ - clock_.monotonicSeconds();
  if (left > 0) return network_.ZtGetAddressesForHostName(name, std::min(left, kOneLookupSeconds));
  ranOutOfTime_ = true;
  return {};
}

}  // namespace tessard
