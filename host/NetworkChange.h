#pragma once

#include <optional>
#include <string>

#include "common/NetworkChangeContext.h"
#include "host/NetworkSnapshot.h"

namespace tessard {

/// What is remembered between two looks at the network.
struct NetworkRecord {
  /// The name that the services go by as far as the host told them. It stays behind the machine's own name
  /// for as long as the services cannot take that on.
  std::optional<std::string> settledHost{};
  /// The network at the last look.
  NetworkSnapshot seen{};
};

/// The change from a record to what is seen now; absent when neither the name nor the addresses are others
/// than at the last look. Names are equal in upper and lower case. Self-assigned addresses count only where
/// there are no usable ones. In the context
///   - the old host is the settled one and the new host the one seen now; the host has changed when both are
///     known and differ, also when it was already seen and could not be taken on;
///   - the configuration is valid with a name and a usable address. A self-assigned address will do where the
///     host has not changed; a system root without a network needs no address;
///   - the new address is self-assigned when there is no other;
///   - the change information has "hostName" and "addresses" where these changed, each a dictionary with what
///     was "old" and is "new" as far as it is known.
std::optional<NetworkChangeContext> networkChange(const NetworkRecord& before, const NetworkSnapshot& now);

/// The record once such a change was told, or there was none. A valid configuration with a usable address and
/// a name outside ".local" settles that name; so does the first name of all.
NetworkRecord recordAfter(const NetworkRecord& before, const NetworkSnapshot& now);

}  // namespace tessard
