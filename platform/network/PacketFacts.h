#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "platform/network/IpAddress.h"
#include "platform/network/NftRuleset.h"

namespace tessard {

/// The first packet of a TCP connection from a host that no rule knows by its address ("a stranger") to an
/// address of this machine.
struct InboundPacket {
  std::string interface;  ///< by which it comes in
  unsigned interfaceIndex = 0;
  IpAddress destination;
  std::uint16_t port = 0;
};

/// What connection tracking says of the packet at the place where a rule asks.
enum class TrackedAs { newConnection, notYet, untracked, unclear };

/// A number, and the names that nft may write instead of it.
struct NamedNumber {
  std::uint64_t value = 0;
  std::vector<std::string> names;
};

/// The flags of the TCP header.
struct TcpFlags {
  std::uint64_t bits = 0;
};

/// An interface's name, which a rule may give as "eth*".
struct InterfaceName {
  std::string name;
};

/// The address that a stranger has: any that most hosts have.
struct StrangersAddress {
  bool ipv6 = false;
};

/// It is not known what the packet has there.
struct NotKnown {};
/// The packet has no such thing, so that no rule that asks for it can match, whatever the comparison.
struct NotThere {};

using Fact =
    std::variant<NotKnown, NotThere, NamedNumber, TcpFlags, InterfaceName, IpAddress, StrangersAddress, bool>;

/// What the packet has where the left side of a comparison looks.
class PacketFacts {
 public:
  PacketFacts(const InboundPacket& packet, bool marksAreSet) : packet_(packet), marksAreSet_(marksAreSet) {}

  /// One fact, or one for each part of a concatenation.
  std::vector<Fact> factsOf(const Json& left, TrackedAs tracked) const;

 private:
  Fact factOf(const Json& expression, TrackedAs tracked) const;
  Fact payload(const Json& what) const;
  Fact networkHeader(const std::string& protocol, const std::string& field) const;
  Fact tcpHeader(const std::string& field) const;
  Fact meta(const std::string& key) const;
  Fact tracking(const Json& what, TrackedAs tracked) const;
  Fact route(const Json& what) const;
  Fact masked(const Json& operands, TrackedAs tracked) const;
  Fact mark() const;

  InboundPacket packet_;
  bool marksAreSet_;
};

/// The bits of TCP flags that are written as a name, a number, or a list or sum of them; absent for anything
/// else.
std::optional<std::uint64_t> tcpFlagBits(const Json& written);

}  // namespace tessard
