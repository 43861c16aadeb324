#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"
#include "tests/support/NetworkNamespace.h"

namespace tessard {

/// The ports that the tests ask about.
const std::set<std::uint16_t>& labPorts();

/// The addresses of the machine behind the filter.
inline constexpr const char* kLabAddress = "192.0.2.1";
inline constexpr const char* kLabAddress6 = "2001:db8:1::1";

/// A machine with a packet filter and a server on every port of `labPorts`, and a stranger, each in a network
/// of its own with a cable between them. The machine's interface is "up0", its default route leads to the
/// stranger's end.
class FilterLab {
 public:
  /// Loads the ruleset, as `nft -f` reads it, into the machine's kernel.
  explicit FilterLab(std::string_view ruleset);

  const NetworkNamespace& machine() const { return machine_; }

  /// The stranger begins to connect to every port at both addresses.
  void beginConnections();

  /// Whether every connection has come to its end: it is made, was refused, or was not heard of before the
  /// kernel sent its first packet again.
  bool allAreDecided();

  /// The addresses at which connections to the port were not made, once all are decided.
  std::set<std::string> refusedAddresses(std::uint16_t port) const;

  /// What the class says, run on the machine.
  bool check(Array& restrictions) const;

 private:
  struct Attempt {
    std::uint16_t port;
    std::string address;
    FileDescriptor socket;
    enum { pending, made, refused } state = pending;
  };

  void listen();

  NetworkNamespace machine_;
  NetworkNamespace stranger_;
  std::vector<FileDescriptor> servers_;
  std::vector<Attempt> attempts_;
};

}  // namespace tessard
